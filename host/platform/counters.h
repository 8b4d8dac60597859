/// What the messaging service counts, from any thread, and what it warns of.
#pragma once

#include "message.h"
#include "messaging_settings.h"
#include "platform.h"

#include <algorithm>
#include <array>
#include <atomic>

namespace platform
{

struct messaging_counters {
  using by_reason = std::array<std::atomic<uint64_t>, static_cast<size_t>(drop_reason::count)>;
  struct of_channel {
    std::atomic<uint64_t> sent{0};
    std::atomic<uint64_t> received{0};
    by_reason dropped{};
  };

  std::array<of_channel, CHANNEL_COUNT + 1> channels{};  // by channel - CHANNEL_FIRST; the last one: no such channel
  std::array<by_reason, NODES_MAX> dropped_of{};         // by node - 1, if it is known

  void count_sent(uint32_t channel) { add(of(channel).sent, 1); }
  void count_received(uint32_t channel) { add(of(channel).received, 1); }
  void drop(uint32_t channel, drop_reason reason, uint64_t count = 1)
  {
    add(of(channel).dropped[static_cast<size_t>(reason)], count);
  }
  void drop_of(uint32_t node, uint32_t channel, drop_reason reason)
  {
    drop(channel, reason);
    if (node != 0) {
      add(dropped_of[node - 1][static_cast<size_t>(reason)], 1);
    }
  }

private:
  of_channel &of(uint32_t channel) { return channels[std::min(channel - CHANNEL_FIRST, CHANNEL_COUNT)]; }
  static void add(std::atomic<uint64_t> &to, uint64_t count) { to.fetch_add(count, std::memory_order_relaxed); }
};

}  // namespace platform
