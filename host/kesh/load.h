/// A load generator inside the daemon: threads that make lines and submit them as fast as they are delivered.
///
/// The text of a line follows from its tag and its thread, so a reader of a journal can tell whether it is what was
/// sent. It is "thread N ", then the tag and a blank, again and again, cut to the size.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "line_sender.h"
#include "service.h"

namespace kesh
{

inline constexpr int LOAD_THREADS_MAX = 32;
inline constexpr uint64_t LOAD_BYTES_MAX = 10 << 20;

struct load_options {
  int threads = 1;
  std::vector<uint64_t> payload_bytes = {100};  ///< sizes of the payloads, in turn; record and text, see load_text
  uint64_t count = 0;                           ///< lines in all; 0: no end
  double seconds = 0;                           ///< no line begins after that; 0: no end
  uint32_t pause_ms = 0;                        ///< of each thread between two lines
  bool repeat = true;                           ///< whether a line without a result is tried again
  int64_t timeout_s = 60;                       ///< as in send_options
};

struct load_totals {
  uint64_t lines = 0;
  uint64_t acknowledged = 0;
  uint64_t failed = 0;
  uint64_t attempts = 0;
};

/// Why the options cannot be used; empty if they can.
std::string load_options_fault(const load_options &options);

/// The text of a line whose payload is to have `payload_bytes`; empty if the record without a text is as long.
std::string load_text(const line_tag &tag, uint32_t thread, uint64_t payload_bytes);

class load
{
public:
  /// Starts the threads; throws std::system_error if one cannot be started.
  load(service &host, const load_options &options);
  /// Waits for the lines that are on their way; without a quorum that lasts until the protocol is stopped.
  ~load();

  /// No line begins after this.
  void end() { ended_ = true; }
  /// Waits until all is done. False at the deadline.
  bool wait(steady_time deadline) PLATFORM_EXCLUDES(lock_);
  load_totals totals() PLATFORM_EXCLUDES(lock_);

private:
  void run(uint64_t first_size) PLATFORM_EXCLUDES(lock_);
  bool take_line();
  void take_verdict(const send_verdict &given) PLATFORM_EXCLUDES(lock_);

  service &host_;
  const load_options options_;
  const steady_time ends_at_;
  std::atomic<bool> ended_ = false;
  std::atomic<uint64_t> begun_ = 0;
  platform::mutex lock_;
  platform::condition changed_;
  load_totals totals_ PLATFORM_GUARDED_BY(lock_);
  size_t running_ PLATFORM_GUARDED_BY(lock_) = 0;
  std::vector<std::thread> threads_;  // constructor and owner only
};

}  // namespace kesh
