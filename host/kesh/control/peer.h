/// A handler's end of one connection of the control socket.
#pragma once

#include <atomic>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "guarded.h"
#include "unique_fd.h"

namespace kesh
{

class control_peer
{
public:
  explicit control_peer(platform::unique_fd fd) : fd_(std::move(fd)) {}

  /// Answers with {"ok": true} and the fields given.
  bool accept(const nlohmann::json &fields = {});
  /// Answers with {"ok": false, "code": code, "error": error}.
  bool refuse(int code, const std::string &error);
  /// Sends all of it, and waits for a client that reads slowly. False once it has left, or the server stops. One
  /// thread.
  bool send(std::string_view bytes);
  bool has_answered() const { return answered_; }

  /// The client has left, or the server stops: the handler has to return. Takes no lock.
  bool is_gone() const { return gone_; }
  /// `wake` is called once is_gone(), by the server's thread or at once. It may take the lock of the handler's wait, so
  /// the handler does not hold that here; it must not wait for more. What it uses must outlive the server.
  void when_gone(std::function<void()> wake) PLATFORM_EXCLUDES(lock_);
  /// The connection stays open until the server is destroyed, so that its client notices the daemon's end.
  void keep_open() { kept_open_ = true; }

  // For the server.
  int fd() const { return fd_.get(); }
  bool is_kept_open() const { return kept_open_; }
  void set_gone() PLATFORM_EXCLUDES(lock_);
  /// Ends a send that waits, too.
  void shut() const;

private:
  const platform::unique_fd fd_;
  std::atomic<bool> gone_ = false;
  std::atomic<bool> kept_open_ = false;
  std::atomic<bool> answered_ = false;
  platform::mutex lock_;  // held while `wake_` is called
  std::function<void()> wake_ PLATFORM_GUARDED_BY(lock_);
};

}  // namespace kesh
