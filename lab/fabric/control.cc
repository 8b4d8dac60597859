#include "control.h"

#include "unix_listener.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace fabric
{
namespace
{
constexpr size_t REQUEST_MAX_BYTES = 1 << 20;
constexpr size_t ANSWERS_MAX_BYTES = 4 << 20;
}  // namespace

struct control_server::client {
  platform::unique_fd socket;
  std::string received;
  std::string answers;
  bool has_ended = false;  // sends nothing more
  bool is_broken = false;
  uint32_t watched = EPOLLIN;
};

control_server::control_server(event_loop &loop, commands &what) : loop_(loop), commands_(what) {}

control_server::~control_server()
{
  for (const client &one : clients_) {
    loop_.forget(one.socket.get());
  }
  if (listener_) {
    loop_.forget(listener_.get());
    unlink(path_.c_str());
  }
}

void control_server::listen(const std::string &path)
{
  listener_ = listen_unix(path, SOCK_STREAM);
  path_ = path;
  loop_.watch(listener_.get(), EPOLLIN, [this](uint32_t) { accept_one(); });
}

void control_server::accept_one()
{
  platform::unique_fd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (socket) {
    client &made = clients_.emplace_back();
    made.socket = std::move(socket);
    loop_.watch(made.socket.get(), EPOLLIN, [this, &made](uint32_t events) {
      if ((events & ~uint32_t{EPOLLOUT}) != 0) {
        read_some(made);
      }
    });
  }
}

void control_server::read_some(client &from)
{
  std::array<char, 65536> bytes;
  const ssize_t size = recv(from.socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size > 0) {
    from.received.append(bytes.data(), static_cast<size_t>(size));
    from.is_broken |= from.received.size() > REQUEST_MAX_BYTES;
    serve(from);
  } else if (size == 0) {
    from.has_ended = true;
  } else {
    from.is_broken |= errno != EAGAIN && errno != EINTR;
  }
}

void control_server::serve(client &from)
{
  size_t end = 0;
  while (!from.is_broken && (end = from.received.find('\n')) != std::string::npos) {
    const std::string line = from.received.substr(0, end);
    from.received.erase(0, end + 1);
    from.answers += commands_.run(line).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    from.is_broken |= from.answers.size() > ANSWERS_MAX_BYTES;
  }
}

void control_server::write_some(client &to)
{
  while (!to.answers.empty()) {
    const ssize_t sent = ::send(to.socket.get(), to.answers.data(), to.answers.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      to.is_broken |= errno != EAGAIN && errno != EINTR;
      return;
    }
    to.answers.erase(0, static_cast<size_t>(sent));
  }
}

void control_server::flush()
{
  for (auto one = clients_.begin(); one != clients_.end();) {
    client &each = *one;
    write_some(each);
    if (each.is_broken || (each.has_ended && each.answers.empty())) {
      loop_.forget(each.socket.get());
      one = clients_.erase(one);
      continue;
    }
    const uint32_t wanted =
        (each.has_ended ? 0U : uint32_t{EPOLLIN}) | (each.answers.empty() ? 0U : uint32_t{EPOLLOUT});
    if (wanted != each.watched) {
      loop_.change(each.socket.get(), wanted);
      each.watched = wanted;
    }
    ++one;
  }
}

}  // namespace fabric
