/// Messages that are sent repeatedly until they are taken back.
#pragma once

#include "guarded.h"
#include "message.h"
#include "transmitter.h"

#include <cstdint>
#include <thread>

namespace platform
{

class repeat_queue
{
public:
  explicit repeat_queue(transmitter &out) : out_(out) {}

  void start(uint32_t interval_ms);
  /// Ends the thread and releases what is queued.
  void stop();

  /// Sends the message for the first time and keeps it, under its id.
  void add(message_ptr added);
  /// Takes messages back. Waits for a transmission that is under way, which never blocks. So none is sent after the
  /// return.
  void remove(uint64_t id);
  void remove(uint32_t channel, uint32_t key, bool any_key);
  size_t size();

private:
  void run();
  void send_due(int64_t now_us) PLATFORM_REQUIRES(lock_);
  int64_t next_due_us() PLATFORM_REQUIRES(lock_);
  int64_t period_us(const message &one) const PLATFORM_REQUIRES(lock_);

  transmitter &out_;
  std::thread thread_;  // start and stop only

  // Held while a message is sent, so that remove waits for it.
  mutex lock_;
  condition changed_;
  int64_t interval_us_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool stopping_ PLATFORM_GUARDED_BY(lock_) = false;
  int64_t wakes_at_us_ PLATFORM_GUARDED_BY(lock_) = INT64_MAX;  // when the thread looks again by itself
  message_list queued_ PLATFORM_GUARDED_BY(lock_);
};

}  // namespace platform
