/// What the messaging service counts, from any thread, and what it warns of.
#pragma once

#include "messaging_settings.h"
#include "platform.h"

#include <array>
#include <atomic>

namespace platform
{

struct messaging_counters {
  using by_reason = std::array<std::atomic<uint64_t>, static_cast<size_t>(drop_reason::count)>;

  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> received{0};
  by_reason dropped{};
  std::array<by_reason, NODES_MAX> dropped_of{};  // by node - 1, if it is known

  void drop(drop_reason reason, uint64_t count = 1)
  {
    dropped[static_cast<size_t>(reason)].fetch_add(count, std::memory_order_relaxed);
  }
  void drop_of(uint32_t node, drop_reason reason)
  {
    drop(reason);
    if (node != 0) {
      dropped_of[node - 1][static_cast<size_t>(reason)].fetch_add(1, std::memory_order_relaxed);
    }
  }
};

}  // namespace platform
