#include "control/peer.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "control/request.h"

namespace kesh
{

using platform::lock_scope;

bool control_peer::accept(const nlohmann::json &fields)
{
  return send(reply_accepted(fields));
}

bool control_peer::refuse(int code, const std::string &error)
{
  return send(reply_refused(code, error));
}

bool control_peer::send(std::string_view bytes)
{
  answered_ = true;
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(sent > 0 ? sent : 0));
  }
  return !is_gone();
}

void control_peer::when_gone(std::function<void()> wake)
{
  const lock_scope scope(lock_);
  wake_ = std::move(wake);
  if (gone_ && wake_) {
    wake_();
  }
}

void control_peer::set_gone()
{
  gone_ = true;
  const lock_scope scope(lock_);
  if (wake_) {
    wake_();
  }
}

void control_peer::shut() const
{
  shutdown(fd_.get(), SHUT_RDWR);
}

}  // namespace kesh
