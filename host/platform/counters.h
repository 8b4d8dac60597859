/// What the messaging service counts, from any thread.
#pragma once

#include "platform.h"

#include <array>
#include <atomic>

namespace platform
{

struct messaging_counters {
  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> received{0};
  std::array<std::atomic<uint64_t>, static_cast<size_t>(drop_reason::count)> dropped{};

  void drop(drop_reason reason, uint64_t count = 1)
  {
    dropped[static_cast<size_t>(reason)].fetch_add(count, std::memory_order_relaxed);
  }
};

}  // namespace platform
