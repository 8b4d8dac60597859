/// The trace of a process: its calls of the library, and the library's calls of its hooks. Checkers read it afterwards.
/// Off unless lab.trace is set.
///
/// Each event is one line. It is written with one write() before the process goes on, so not even a kill -9 loses what
/// happened before. Words are separated by one blank. The first two are the time at which the line was written
/// (CLOCK_MONOTONIC, ns), and the process life as in tags. Lines of different threads may be slightly out of order.
///   begin PID
///   start-call | start-return RESULT | stop-call | stop-return QUEUED | cleanup-call | cleanup-return | isolated
///   call SENDER SEQUENCE ATTEMPT BYTES       vx_cons_distribute is about to be called with this item of BYTES
///   return SENDER SEQUENCE ATTEMPT RESULT    it returned
///   deliver ENTERED TAG ATTEMPT WHAT LINES HASH  one per item of a payload. WHAT: applied, repeated, no-op,
///                                            or doubled: the payload was applied before, and is delivered again
///   damaged ENTERED TYPE BYTES               a payload or state that cannot be read
///   adopt ENTERED TYPE BYTES LINES HASH      a full state, of any type; the journal changes with type 3
///   adopted kept|extended|replaced N         after that: what became of the store
///   rejoin REASON                            the store does not fit, and asks for a state
///   get-state TYPE BYTES LINES HASH          a state was asked for; 0 BYTES: there is none
/// QUEUED counts the messages that are still being repeated. ENTERED is the time at which the hook was entered. LINES
/// and HASH are the journal's end after the event (store/last_line.h).
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "unique_fd.h"

namespace kesh_lab
{

class trace
{
public:
  /// Opens or creates the file, to append to it. No path: stays off. False on failure; `error` says why.
  bool open(const std::string &path, uint64_t life, std::string &error);
  bool on() const { return static_cast<bool>(fd_); }

  /// Writes one event as its words. Any thread. Does nothing while off.
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

}  // namespace kesh_lab
