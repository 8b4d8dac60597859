/// The daemon's side of one `kesh submit`: lines in, vx_cons_distribute on several threads, verdicts out.
///
/// After the request the client sends lines and closes its direction; for each line the daemon answers, in the
/// order in which they end,
///   ok LINE SEQUENCE MICROSECONDS ATTEMPTS
///   failed LINE SEQUENCE ATTEMPTS REASON
/// LINE counts the lines of this client from 1. SEQUENCE is the tag's, or 0 for a line that was not tried. A last line
/// "done" follows. After a failure all waiting lines fail, too.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "line_sender.h"
#include "service.h"
#include "socket_text.h"

namespace kesh
{

inline constexpr int SUBMIT_THREADS_MAX = 64;

class submission
{
public:
  /// Starts the threads; throws std::system_error if one cannot be started. `timeout_s` bounds the time that a line
  /// waits for the node to become active again.
  submission(service &host, socket_writer &client, int threads, int64_t timeout_s);
  /// Gives up the lines that were not tried yet.
  ~submission();

  /// Waits for room, then takes a line. False, and nothing taken, once a line has failed.
  bool push(std::string text) PLATFORM_EXCLUDES(lock_);
  /// Waits until every line taken has its answer.
  void finish() PLATFORM_EXCLUDES(lock_);

private:
  struct waiting_line {
    uint64_t number;
    std::string text;
  };

  void run() PLATFORM_EXCLUDES(lock_);
  bool pop(waiting_line &line, bool &tried) PLATFORM_EXCLUDES(lock_);
  void answer(const waiting_line &line, const send_verdict &given, int64_t time_us);

  service &host_;
  socket_writer &client_;
  const int64_t timeout_s_;
  const size_t room_;
  platform::mutex lock_;
  platform::condition changed_;
  std::deque<waiting_line> waiting_ PLATFORM_GUARDED_BY(lock_);
  uint64_t taken_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool finished_ PLATFORM_GUARDED_BY(lock_) = false;
  bool failed_ PLATFORM_GUARDED_BY(lock_) = false;
  std::vector<std::thread> threads_;  // constructor and owner only
};

}  // namespace kesh
