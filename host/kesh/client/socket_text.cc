#include "client/socket_text.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace kesh
{

using std::chrono::steady_clock;

namespace
{

constexpr size_t CHUNK_SIZE = 64 << 10;

bool set_address(const std::string &path, sockaddr_un &address)
{
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

/// Of connect(), while the daemon does not accept, and of send(); 0: none.
void set_send_timeout(int fd, int64_t wait_ms)
{
  const timeval timeout{wait_ms / 1000, wait_ms % 1000 * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

}  // namespace

int wait_ms_until(socket_deadline deadline)
{
  if (deadline == socket_deadline::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

read_result socket_reader::read_line(std::string &line, size_t size_max, socket_deadline deadline)
{
  for (;;) {
    const size_t end = buffer_.find('\n', searched_);
    searched_ = end == std::string::npos ? buffer_.size() : end;
    if (searched_ - start_ > size_max) {
      return read_result::too_long;
    }
    if (end != std::string::npos) {
      line.assign(buffer_, start_, end - start_);
      searched_ = start_ = end + 1;
      return read_result::line;
    }
    buffer_.erase(0, start_);
    searched_ -= start_;
    start_ = 0;
    pollfd waited{fd_, POLLIN, 0};
    const int ready = poll(&waited, 1, wait_ms_until(deadline));
    if (ready == 0) {
      return read_result::late;
    }
    const size_t have = buffer_.size();
    buffer_.resize(have + CHUNK_SIZE);
    const ssize_t got = ready < 0 ? -1 : recv(fd_, buffer_.data() + have, CHUNK_SIZE, 0);
    const bool is_interrupted = got < 0 && errno == EINTR;
    buffer_.resize(have + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got <= 0 && !is_interrupted) {
      return read_result::end;
    }
  }
}

bool socket_send(int fd, std::string_view bytes)
{
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(sent, 0)));
  }
  return true;
}

platform::unique_fd socket_connect(const std::string &path, socket_deadline deadline)
{
  sockaddr_un address;
  platform::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || !set_address(path, address)) {
    return {};
  }
  const bool is_limited = deadline != socket_deadline::max();
  if (is_limited) {
    set_send_timeout(fd.get(), std::max(1, wait_ms_until(deadline)));
  }
  if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return {};
  }
  if (is_limited) {
    set_send_timeout(fd.get(), 0);
  }
  return fd;
}

}  // namespace kesh
