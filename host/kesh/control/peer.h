/// A handler's end of one connection of the control socket.
#pragma once

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
  bool accept(const nlohmann::json &fields = {}) PLATFORM_EXCLUDES(lock_);
  /// Answers with {"ok": false, "code": code, "error": error}.
  bool refuse(int code, const std::string &error) PLATFORM_EXCLUDES(lock_);
  /// Sends all of it, and waits for a client that reads slowly. False once it has left, or the server stops. One
  /// thread.
  bool send(std::string_view bytes) PLATFORM_EXCLUDES(lock_);
  bool has_answered() const PLATFORM_EXCLUDES(lock_);

  /// The client has left, or the server stops: the handler has to return.
  bool is_gone() const PLATFORM_EXCLUDES(lock_);
  /// `wake` is called once is_gone(), by the server's thread or at once. It must end the handler's wait, must not wait
  /// itself, and what it uses must outlive the server. The handler holds no lock here that `wake` takes.
  void when_gone(std::function<void()> wake) PLATFORM_EXCLUDES(lock_);
  /// The connection stays open until the server is destroyed, so that its client notices the daemon's end.
  void keep_open() PLATFORM_EXCLUDES(lock_);

  // For the server.
  int fd() const { return fd_.get(); }
  bool is_kept_open() const PLATFORM_EXCLUDES(lock_);
  void set_gone() PLATFORM_EXCLUDES(lock_);
  /// Ends a send that waits, too.
  void shut() const;

private:
  const platform::unique_fd fd_;
  mutable platform::mutex lock_;  // held while `wake_` is called
  bool gone_ PLATFORM_GUARDED_BY(lock_) = false;
  bool kept_open_ PLATFORM_GUARDED_BY(lock_) = false;
  bool answered_ PLATFORM_GUARDED_BY(lock_) = false;
  std::function<void()> wake_ PLATFORM_GUARDED_BY(lock_);
};

}  // namespace kesh
