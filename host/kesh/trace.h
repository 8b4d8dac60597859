/// The trace of a process: what it asked of the library and what the library asked of it. For those who check
/// afterwards what a cluster did; off unless trace.file is set.
///
/// One line per event, written with one write() before the process goes on, so that not even a kill -9 loses what
/// happened before it. Words are separated by one blank; the first two are the time (CLOCK_MONOTONIC, ns) at which
/// the line was written, and the process life as in tags. Lines of different threads may stand a little out of order.
///   begin PID
///   start-call | start-return RESULT | stop-call | stop-return QUEUED | cleanup-call | cleanup-return | isolated
///   call THREAD SEQUENCE ATTEMPT BYTES       vx_cons_distribute is about to be called; BYTES of payload
///   return THREAD SEQUENCE ATTEMPT RESULT    it returned
///   deliver ENTERED TAG ATTEMPT applied|repeated|doubled LINES HASH
///   damaged ENTERED TYPE BYTES               a payload or state that cannot be read
///   adopt ENTERED TYPE BYTES LINES HASH      a full state, of any type
///   get-state TYPE BYTES LINES HASH          a state was asked for; 0 BYTES: there is none
/// QUEUED counts the messages that are still being sent again and again.
/// ENTERED is the time at which the hook was entered; LINES and HASH tell where the journal stands after the event.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "unique_fd.h"

namespace kesh
{

class trace
{
public:
  /// Opens the file, made if needed, to write at its end. No path: stays off. False, and `error` says why, on failure.
  bool open(const std::string &path, uint64_t life, std::string &error);
  bool on() const { return static_cast<bool>(fd_); }

  /// One event, as its words. Any thread; nothing while off.
  template <typename... words>
  void note(std::string_view event, const words &...rest)
  {
    if (on()) {
      std::string line(event);
      (append(line, rest), ...);
      write_line(line);
    }
  }

  static uint64_t now_ns();

private:
  template <typename word>
  static void append(std::string &line, const word &next)
  {
    line += ' ';
    if constexpr (std::is_integral_v<word>) {
      line += std::to_string(next);
    } else {
      line += next;
    }
  }
  void write_line(const std::string &event);

  // Set by open, before other threads run.
  platform::unique_fd fd_;
  std::string life_;
};

}  // namespace kesh
