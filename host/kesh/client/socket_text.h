/// Lines of text over a stream socket: the client's end of the control socket.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "unique_fd.h"

namespace kesh
{

/// Longest line of a client, and about the longest of an answer: each byte of a text may be escaped by four.
inline constexpr size_t SOCKET_LINE_MAX = 64 << 20;

enum class read_result { line, end, too_long, late };

using socket_deadline = std::chrono::steady_clock::time_point;

/// One reader per socket and thread. An incomplete last line is dropped: its sender has died.
class socket_reader
{
public:
  explicit socket_reader(int fd) : fd_(fd) {}
  /// Waits for the next line, given without its newline, until the deadline. After `late` go on reading.
  read_result read_line(std::string &line, size_t size_max, socket_deadline deadline = socket_deadline::max());

private:
  int fd_;
  std::string buffer_;
  size_t start_ = 0;     // first byte not handed out
  size_t searched_ = 0;  // no newline before this one
};

/// Sends all of it. False once the other end is gone, errno set.
bool socket_send(int fd, std::string_view bytes);

/// Connects, and gives up at the deadline. Not open on failure, errno set.
platform::unique_fd socket_connect(const std::string &path, socket_deadline deadline = socket_deadline::max());

/// Milliseconds from now to the deadline, for poll(): rounded up, -1 for none.
int wait_ms_until(socket_deadline deadline);

}  // namespace kesh
