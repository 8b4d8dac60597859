#include "daemon/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "unique_fd.h"

namespace kesh::service_manager
{

namespace
{

bool is_ready_told = true;

/// False: there was no room for it. `wait` {0, 0}: not at all.
bool tell(const std::string &word, timeval wait)
{
  const char *const where = std::getenv("NOTIFY_SOCKET");
  const size_t size = where == nullptr ? 0 : strlen(where);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (size == 0 || size > sizeof address.sun_path) {
    return true;  // nobody asked, or nobody can be told
  }
  memcpy(address.sun_path, where, size);
  if (where[0] == '@') {
    address.sun_path[0] = '\0';  // a name that is no file
  }
  const platform::unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const bool waits = wait.tv_sec != 0;
  return fd && (!waits || setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) == 0) &&
         sendto(fd.get(), word.data(), word.size(), MSG_NOSIGNAL | (waits ? 0 : MSG_DONTWAIT),
                reinterpret_cast<const sockaddr *>(&address),
                static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size)) >= 0;
}

// What is said once may wait for a manager that is busy. The main loop must not.
bool tell_once(const std::string &word)
{
  return tell(word, {1, 0});
}

}  // namespace

void takes_up_to(std::chrono::seconds time)
{
  tell_once("EXTEND_TIMEOUT_USEC=" + std::to_string(std::chrono::microseconds(time).count()));
}

void is_ready()
{
  is_ready_told = tell_once("READY=1");
}

void is_alive()
{
  constexpr timeval AT_ONCE{0, 0};
  is_ready_told = is_ready_told || tell("READY=1", AT_ONCE);
  tell("WATCHDOG=1", AT_ONCE);
}

void is_stopping()
{
  tell_once("STOPPING=1");
}

}  // namespace kesh::service_manager
