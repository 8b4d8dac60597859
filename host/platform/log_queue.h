/// Lines on their way to the log, and the thread that writes them: a disk that stalls stalls nobody who logs.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "guarded.h"
#include "platform.h"

namespace platform
{

struct log_record {
  std::chrono::system_clock::time_point at;
  log_level level = log_level::info;
  std::string text;
};

/// Bounded: a line for which there is no room is dropped and counted. The count gets a line of its own once there is
/// room again.
class log_queue
{
public:
  using writer = std::function<void(const log_record &line)>;
  using drop_teller = std::function<log_record(uint64_t count)>;

  /// `bytes_max`: of texts that wait. `write` is called on the queue's thread, with no lock held, and so is
  /// `tell_drop`, which makes the line about lines that were dropped.
  log_queue(size_t bytes_max, writer write, drop_teller tell_drop);
  /// Writes what waits.
  ~log_queue();

  /// Any thread; never waits for the disk.
  void push(log_record line) PLATFORM_EXCLUDES(lock_);
  /// Waits until all that was pushed before is written. False: not within `limit`.
  bool flush(std::chrono::milliseconds limit) PLATFORM_EXCLUDES(lock_);
  /// Lines dropped since the beginning.
  uint64_t dropped() PLATFORM_EXCLUDES(lock_);

private:
  void run() PLATFORM_EXCLUDES(lock_);

  const size_t bytes_max_;
  const writer write_;
  const drop_teller tell_drop_;
  mutex lock_;
  condition pushed_;
  condition written_cond_;
  std::vector<log_record> waiting_ PLATFORM_GUARDED_BY(lock_);
  size_t bytes_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint64_t accepted_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint64_t written_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint64_t dropped_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool is_ending_ PLATFORM_GUARDED_BY(lock_) = false;
  std::thread thread_;  // last, for it uses all of the above
};

}  // namespace platform
