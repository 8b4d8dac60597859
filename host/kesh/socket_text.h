/// Lines of text over a stream socket, for both ends of the control socket.
///
/// A client sends one line of JSON, {"op": "..."}; the daemon answers with one, {"ok": true, ...} or
/// {"ok": false, "code": exit code, "error": "..."}. Some operations go on with plain lines after that.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "guarded.h"
#include "unique_fd.h"

namespace kesh
{

/// Longest line in either direction. A longer one ends the connection.
inline constexpr size_t SOCKET_LINE_MAX = 64 << 20;
/// Longest first line of a client.
inline constexpr size_t SOCKET_REQUEST_MAX = 64 << 10;

enum class read_result { line, end, too_long };

/// One reader per socket and thread. An incomplete last line is dropped: its sender has died.
class socket_reader
{
public:
  explicit socket_reader(int fd) : fd_(fd) {}
  /// Waits for the next line, given without its newline.
  read_result read_line(std::string &line, size_t size_max);

private:
  int fd_;
  std::string buffer_;
  size_t start_ = 0;  // first byte not handed out
};

/// Sends each piece as a whole. Any thread.
class socket_writer
{
public:
  explicit socket_writer(int fd) : fd_(fd) {}
  /// False once the other end is gone.
  bool send(std::string_view bytes) PLATFORM_EXCLUDES(lock_);
  int fd() const { return fd_; }

private:
  platform::mutex lock_;  // held while a piece is sent
  const int fd_;
};

/// Connects. Not open on failure, errno set.
platform::unique_fd socket_connect(const std::string &path);
/// Listens, mode 0600; a socket file without a listener is replaced. Not open on failure, `error` says why.
platform::unique_fd socket_listen(const std::string &path, std::string &error);
/// True if the other end has closed the connection.
bool socket_hung_up(int fd);

}  // namespace kesh
