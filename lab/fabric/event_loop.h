/// Waits for descriptors and calls their handlers, on one thread.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

namespace fabric
{

class event_loop
{
public:
  using handler = std::function<void(uint32_t events)>;

  /// Throws std::system_error.
  event_loop();

  /// `events` as for epoll. A handler may watch, change and forget anything, itself included.
  void watch(int fd, uint32_t events, handler call);
  void change(int fd, uint32_t events);
  /// Before the descriptor is closed.
  void forget(int fd);

  /// Calls the handlers of what is ready; waits for it until `deadline_ns`.
  void run_once(int64_t deadline_ns);

private:
  struct watched {
    int fd;
    handler call;
  };

  platform::unique_fd poll_;
  uint64_t last_tag_ = 0;
  std::unordered_map<int, uint64_t> tags_;
  // By tag, not by descriptor: the number of a closed one may come back while its last event waits to be handled.
  std::unordered_map<uint64_t, std::shared_ptr<watched>> watched_;
};

}  // namespace fabric
