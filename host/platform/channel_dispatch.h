/// Hands the messages of one channel to its hook, one at a time, on a thread of its own. Messages that arrive while the
/// hook runs are queued, control messages before bulk.
#pragma once

#include "counters.h"
#include "guarded.h"
#include "message.h"
#include "message_filter.h"

#include <cstdint>
#include <thread>

namespace platform
{

class channel_dispatch
{
public:
  using hook_function = void (*)(void *msg);

  channel_dispatch(messaging_counters &counters, filter_gate &gate, uint32_t channel)
      : counters_(counters), gate_(gate), channel_(channel)
  {
  }

  void start();
  /// Waits for a hook that is running, ends the thread and releases the queue. Not to be called from a hook.
  void stop();

  /// Null: no hook. A call of the old hook may still run, but none begins after the return. Never waits.
  void set_hook(hook_function hook);
  void clear_hook(hook_function hook);

  /// Takes over the received messages. Those that exceed the memory bound, or find no hook, are counted and dropped.
  void put(message_list &control, message_list &bulk);

private:
  void run();
  bool keep(message_list &from, message_list &to) PLATFORM_REQUIRES(lock_);

  messaging_counters &counters_;
  filter_gate &gate_;
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
