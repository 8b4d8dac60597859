#include "control_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "control_commands.h"
#include "platform.h"

namespace kesh
{

namespace
{

constexpr size_t CONNECTIONS_MAX = 128;

}  // namespace

bool control_server::start(std::string &error)
{
  listener_ = socket_listen(host_.configured.socket_path, error);
  if (!listener_) {
    return false;
  }
  stop_event_ = platform::unique_fd(eventfd(0, EFD_CLOEXEC));
  if (!stop_event_) {
    error = std::string("eventfd: ") + strerror(errno);
    return false;
  }
  thread_ = std::thread([this] { accept_loop(); });
  return true;
}

void control_server::stop()
{
  if (!thread_.joinable()) {
    return;
  }
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(stop_event_.get(), &one, sizeof one);
  thread_.join();
  listener_.reset();
  unlink(host_.configured.socket_path.c_str());
  for (connection &peer : connections_) {
    if (!peer.awaits_end) {
      shutdown(peer.fd.get(), SHUT_RDWR);
    }
    peer.thread.join();
  }
  connections_.remove_if([](const connection &peer) { return !peer.awaits_end; });
}

void control_server::accept_loop()
{
  pollfd waited[] = {{listener_.get(), POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
  while (poll(waited, 2, -1) >= 0 || errno == EINTR) {
    if (waited[1].revents != 0) {
      return;
    }
    platform::unique_fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    remove_finished();
    if (fd && connections_.size() < CONNECTIONS_MAX) {
      add(std::move(fd));
    } else if (!fd && errno != EINTR && errno != ECONNABORTED) {
      platform::log_line(platform::log_level::warning, std::string("control socket: accept: ") + strerror(errno));
      poll(&waited[1], 1, 100);  // out of descriptors, most likely: let others close some
    }
  }
}

void control_server::add(platform::unique_fd fd)
{
  connection &peer = connections_.emplace_back();
  peer.fd = std::move(fd);
  try {
    peer.thread = std::thread([this, &peer] { serve(peer); });
  } catch (const std::exception &failure) {
    platform::log_line(platform::log_level::warning, std::string("control socket: ") + failure.what());
    connections_.pop_back();
  }
}

void control_server::remove_finished()
{
  for (auto peer = connections_.begin(); peer != connections_.end();) {
    if (peer->done && !peer->awaits_end) {
      peer->thread.join();
      peer = connections_.erase(peer);
    } else {
      ++peer;
    }
  }
}

void control_server::serve(connection &peer)
{
  try {
    peer.awaits_end = control_serve(host_, peer.fd.get());
    if (peer.awaits_end) {
      host_.request_stop();
    }
  } catch (const std::exception &failure) {
    platform::log_line(platform::log_level::warning, std::string("control socket: ") + failure.what());
  }
  if (!peer.awaits_end) {
    shutdown(peer.fd.get(), SHUT_RDWR);
  }
  peer.done = true;
}

}  // namespace kesh
