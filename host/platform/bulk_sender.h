/// Sends payload pieces, which come in bursts of thousands, no faster than the receivers can take them.
///
/// There are two limits. The rate: what a receive buffer like our own can hold while its reader gets no processor for
/// 10 ms. The window: how many pieces sent to the group have not come back to this node yet. So a machine whose readers
/// fall behind slows its senders down.
///
/// Every node that lacks a payload asks for it, and each answer goes to all. So while pieces wait, a piece that was
/// taken a moment ago is not taken again: a node that asked later hears the first one.
#pragma once

#include "guarded.h"
#include "message.h"
#include "transmitter.h"

#include <chrono>
#include <cstdint>
#include <thread>
#include <unordered_map>

namespace platform
{

class bulk_sender
{
public:
  explicit bulk_sender(transmitter &out) : out_(out) {}

  /// `receive_buffer`: what the kernel granted, as it counts.
  void start(size_t receive_buffer);
  /// Ends the thread and releases what waits.
  void stop();

  /// Sends at once if nothing waits and both limits allow it. Otherwise queues the message, or drops it as a
  /// repetition. Never blocks. False if the queue is full or the sender is stopped; the message is released.
  bool submit(message_ptr added);
  /// Takes back what still waits here. Waits for a batch that is being sent, which never blocks. So none is sent after
  /// the return.
  void remove(uint32_t channel, uint32_t key, bool any_key);
  /// `count` of our pieces came back.
  void came_back(size_t count);

private:
  using clock = std::chrono::steady_clock;

  void run();
  bool is_repetition(const message &one, clock::time_point now) PLATFORM_REQUIRES(lock_);
  size_t allowance(clock::time_point now) PLATFORM_REQUIRES(lock_);
  void charge(const message &one) PLATFORM_REQUIRES(lock_);
  void wait_for_allowance(clock::time_point now) PLATFORM_REQUIRES(lock_);
  void send_batch(size_t count) PLATFORM_REQUIRES(lock_);

  transmitter &out_;
  std::thread thread_;  // start and stop only

  mutex lock_;
  condition changed_;
  clock::duration cost_ PLATFORM_GUARDED_BY(lock_){};  // time that one piece takes at our rate
  size_t window_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool stopping_ PLATFORM_GUARDED_BY(lock_) = true;
  bool sending_batch_ PLATFORM_GUARDED_BY(lock_) = false;
  condition batch_ended_;
  uint32_t removing_ PLATFORM_GUARDED_BY(lock_) = 0;  // threads that wait for the batch to end: no other may begin
  message_list waiting_ PLATFORM_GUARDED_BY(lock_);
  // When each piece was taken, by a hash of its bytes. Covers the time since the queue was last empty.
  std::unordered_map<size_t, clock::time_point> taken_ PLATFORM_GUARDED_BY(lock_);
  clock::time_point paid_until_ PLATFORM_GUARDED_BY(lock_);
  size_t in_flight_ PLATFORM_GUARDED_BY(lock_) = 0;
};

}  // namespace platform
