/// Says, once a minute for each node and reason, that datagrams are dropped for something that a person can cure.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

#include "messaging_settings.h"
#include "platform.h"

namespace platform
{

/// One thread.
class drop_warnings
{
public:
  /// `node` 0: of a stranger. `address`: where it came from.
  void note(uint32_t node, uint32_t address, drop_reason reason);

private:
  using clock = std::chrono::steady_clock;
  struct kind {
    clock::time_point said{};
    uint64_t since = 0;  // how many came after that line
  };

  std::array<std::array<kind, static_cast<size_t>(drop_reason::count)>, NODES_MAX + 1> kinds_{};
};

}  // namespace platform
