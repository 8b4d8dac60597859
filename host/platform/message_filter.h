/// A host may refuse messages: those that the library must not get, and those that must not leave this node. To the
/// library, and to the other nodes, a refused message is one that the network lost.
#pragma once

#include "counters.h"
#include "message.h"

#include <atomic>
#include <cstdint>
#include <span>

namespace platform
{

/// A message as a filter sees it, valid during the call only.
struct message_view {
  uint32_t channel = 0;
  uint32_t key = 0;  ///< of an outgoing message; keys do not travel
  uint64_t cluster_id = 0;
  uint32_t build = 0;
  std::span<const uint8_t> payload;
};

/// `one` has at least an envelope, or nothing of it is told. The key is that of an outgoing message, else 0.
message_view view_of(const message &one, uint32_t channel, uint32_t key);

/// Called by several threads at once, perhaps with locks of the library and of messaging held: it waits for nothing and
/// calls neither. It lives until messaging has stopped.
class message_filter
{
public:
  virtual ~message_filter() = default;
  /// Whether the hook of the channel gets the message, which is well-formed for messaging and for nobody else.
  virtual bool lets_in(const message_view &one) noexcept = 0;
  /// Whether the message goes out. A repeated one is asked for each time; pieces of payloads that wait are not.
  virtual bool lets_out(const message_view &one) noexcept = 0;
};

/// Where messages pass the host's filter, if there is one. Any thread.
class filter_gate
{
public:
  explicit filter_gate(messaging_counters &counters) : counters_(counters) {}

  /// Null: none. Calls of the former filter that run already end by themselves.
  void set(message_filter *filter) { filter_.store(filter, std::memory_order_release); }

  bool lets_in(const message &one, uint32_t channel)
  {
    message_filter *const filter = filter_.load(std::memory_order_acquire);
    return filter == nullptr || ask_in(*filter, one, channel);
  }
  bool lets_out(const message &one)
  {
    message_filter *const filter = filter_.load(std::memory_order_acquire);
    return filter == nullptr || ask_out(*filter, one);
  }

private:
  bool ask_in(message_filter &filter, const message &one, uint32_t channel);
  bool ask_out(message_filter &filter, const message &one);

  messaging_counters &counters_;
  std::atomic<message_filter *> filter_{nullptr};
};

}  // namespace platform
