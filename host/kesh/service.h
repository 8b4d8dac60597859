/// The running daemon as its parts share it: the library's life cycle, the journal, the counters.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "guarded.h"
#include "heard.h"
#include "journal.h"
#include "settings.h"
#include "trace.h"

namespace kesh
{

using steady_time = std::chrono::steady_clock::time_point;

struct submission_counters {
  std::atomic<uint64_t> open = 0;          ///< lines that are being submitted
  std::atomic<uint64_t> acknowledged = 0;  ///< lines delivered here
  std::atomic<uint64_t> failed = 0;        ///< lines given up
  std::atomic<uint64_t> again = 0;         ///< attempts after the first
};

/// Test aid: how much slower the hooks of the journal are.
struct hook_delays {
  std::atomic<uint32_t> deliver_ms = 0;
  std::atomic<uint32_t> state_ms = 0;
};

class service
{
public:
  explicit service(const settings &configured);

  /// Brings the library up, with our hooks. False if it does not come up.
  bool open_library();
  /// Cleans the library up, before the daemon ends.
  void close_library();

  /// Starts the protocol. EXIT_OK, also if it runs; else `error` says why. Any thread.
  int start(std::string &error) PLATFORM_EXCLUDES(lifecycle_lock_);
  /// Stops the protocol; the daemon goes on, and start() may follow. Any thread.
  void leave() PLATFORM_EXCLUDES(lifecycle_lock_);
  /// Cleans the library up and brings it up again; starts the protocol if it ran. As start(). Any thread.
  int reinit(std::string &error) PLATFORM_EXCLUDES(lifecycle_lock_);
  /// Stops the protocol and ends every wait; nothing can be started after it.
  void shut_down();
  /// Stops the protocol after the journal failed; a later start() may succeed.
  void stop_for_journal();
  /// Checks whether the library left the cluster by itself, and logs it once.
  void watch_isolation();

  bool stopping() const { return stopping_; }
  /// Waits until the protocol is active. False at the deadline or when the daemon stops.
  bool wait_active(steady_time deadline) PLATFORM_EXCLUDES(activity_lock_);
  /// Waits until the deadline. False if the daemon stops.
  bool pause(steady_time deadline) PLATFORM_EXCLUDES(activity_lock_);

  /// Asks the main thread to end the daemon. Safe in a hook, as wake is, which makes it look at the journal.
  void request_stop() { stop_requested_ = true, wake(); }
  void wake() const;
  bool stop_requested() const { return stop_requested_; }
  int wake_fd() const { return wake_fd_.get(); }

  uint64_t next_sequence() { return ++sequence_; }
  /// Names a submitting thread in the trace, from 1.
  uint32_t next_thread() { return ++threads_; }

  const settings configured;
  const uint64_t life;  ///< ns since 1970 at the start of this process
  const steady_time started_at = std::chrono::steady_clock::now();
  trace events;
  hook_delays delays;
  journal lines;
  heard messages;
  submission_counters submissions;

private:
  int start_locked(std::string &error) PLATFORM_REQUIRES(lifecycle_lock_);
  void stop_locked() PLATFORM_REQUIRES(lifecycle_lock_);
  void note_isolation() PLATFORM_REQUIRES(lifecycle_lock_);

  platform::unique_fd wake_fd_;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> stop_requested_ = false;
  std::atomic<uint64_t> sequence_ = 0;
  std::atomic<uint32_t> threads_ = 0;
  platform::mutex lifecycle_lock_;  // one start or stop at a time
  bool was_active_ PLATFORM_GUARDED_BY(lifecycle_lock_) = false;
  // Guards no field: the waiters test `stopping_` and the library's answer. It is held to signal, so that no waiter
  // misses the signal between its test and its wait.
  platform::mutex activity_lock_;
  platform::condition activity_;  // became active, or stopping
};

}  // namespace kesh
