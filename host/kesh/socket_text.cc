#include "socket_text.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace kesh
{

namespace
{

constexpr size_t CHUNK_SIZE = 64 << 10;
constexpr int BACKLOG = 32;

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

platform::unique_fd stream_socket()
{
  return platform::unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

}  // namespace

read_result socket_reader::read_line(std::string &line, size_t size_max)
{
  size_t searched = start_;
  for (;;) {
    const size_t end = buffer_.find('\n', searched);
    if ((end == std::string::npos ? buffer_.size() : end) - start_ > size_max) {
      return read_result::too_long;
    }
    if (end != std::string::npos) {
      line.assign(buffer_, start_, end - start_);
      start_ = end + 1;
      return read_result::line;
    }
    buffer_.erase(0, start_);
    start_ = 0;
    searched = buffer_.size();
    buffer_.resize(searched + CHUNK_SIZE);
    ssize_t got;
    do {
      got = recv(fd_, buffer_.data() + searched, CHUNK_SIZE, 0);
    } while (got < 0 && errno == EINTR);
    buffer_.resize(searched + static_cast<size_t>(got > 0 ? got : 0));
    if (got <= 0) {
      return read_result::end;
    }
  }
}

bool socket_writer::send(std::string_view bytes)
{
  const platform::lock_scope scope(lock_);
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(sent > 0 ? sent : 0));
  }
  return true;
}

platform::unique_fd socket_connect(const std::string &path)
{
  sockaddr_un address;
  platform::unique_fd fd = stream_socket();
  if (!fd || !set_address(path, address) ||
      connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return {};
  }
  return fd;
}

platform::unique_fd socket_listen(const std::string &path, std::string &error)
{
  if (socket_connect(path)) {
    error = "another daemon listens on " + path;
    return {};
  }
  if (errno == ECONNREFUSED) {
    unlink(path.c_str());  // left behind by a daemon that was killed
  }
  sockaddr_un address;
  platform::unique_fd fd = stream_socket();
  const bool named = set_address(path, address);
  const mode_t mask_before = umask(0177);
  const bool bound = named && fd && bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  umask(mask_before);
  if (!bound || listen(fd.get(), BACKLOG) != 0) {
    error = "cannot listen on " + path + ": " + strerror(errno);
    return {};
  }
  return fd;
}

bool socket_hung_up(int fd)
{
  pollfd waited{fd, POLLRDHUP, 0};
  return poll(&waited, 1, 0) > 0 && (waited.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

}  // namespace kesh
