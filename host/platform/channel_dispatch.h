/// Hands the messages of one channel to its hook, one at a time, on a thread of its own. What arrives while the
/// hook runs is kept, control in front of bulk.
#pragma once

#include "counters.h"
#include "guarded.h"
#include "message.h"

#include <cstdint>
#include <thread>

namespace platform
{

class channel_dispatch
{
public:
  using hook_function = void (*)(void *msg);

  channel_dispatch(messaging_counters &counters, uint32_t channel) : counters_(counters), channel_(channel) {}

  void start();
  /// Waits for a hook that runs, ends the thread and releases what waits. Not from a hook.
  void stop();

  /// Null: none. A call of the old hook may still run, but none begins after the return. Never waits.
  void set_hook(hook_function hook);
  void clear_hook(hook_function hook);

  /// Takes the received messages over. What exceeds the memory bound, or finds no hook, is counted and dropped.
  void put(message_list &control, message_list &bulk);

private:
  void run();
  bool keep(message_list &from, message_list &to) PLATFORM_REQUIRES(lock_);

  messaging_counters &counters_;
  const uint32_t channel_;
  std::thread thread_;  // start and stop only

  mutex lock_;
  condition changed_;
  bool stopping_ PLATFORM_GUARDED_BY(lock_) = false;
  bool overflow_reported_ PLATFORM_GUARDED_BY(lock_) = false;
  hook_function hook_ PLATFORM_GUARDED_BY(lock_) = nullptr;
  message_list control_ PLATFORM_GUARDED_BY(lock_);
  message_list bulk_ PLATFORM_GUARDED_BY(lock_);
};

}  // namespace platform
