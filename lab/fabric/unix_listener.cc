#include "unix_listener.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace fabric
{
namespace
{

[[noreturn]] void fail(const std::string &path, const std::string &why)
{
  throw std::runtime_error(path + ": " + why);
}

bool is_answered(const sockaddr_un &name, int type)
{
  const platform::unique_fd probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return connect(probe.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0 || errno == EAGAIN;
}

}  // namespace

platform::unique_fd listen_unix(const std::string &path, int type)
{
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path) {
    fail(path, "a socket's path has at most " + std::to_string(sizeof name.sun_path - 1) + " bytes");
  }
  memcpy(name.sun_path, path.c_str(), path.size() + 1);
  platform::unique_fd listener(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto *const address = reinterpret_cast<const sockaddr *>(&name);
  if (bind(listener.get(), address, sizeof name) != 0) {
    if (errno != EADDRINUSE) {
      fail(path, strerror(errno));
    }
    if (is_answered(name, type)) {
      fail(path, "another process listens there");
    }
    if (errno != ECONNREFUSED) {
      fail(path, "is there already and is no such socket");
    }
    if (unlink(path.c_str()) != 0 || bind(listener.get(), address, sizeof name) != 0) {
      fail(path, strerror(errno));
    }
  }
  if (listen(listener.get(), SOMAXCONN) != 0) {
    fail(path, strerror(errno));
  }
  return listener;
}

}  // namespace fabric
