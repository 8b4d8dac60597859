#include "event_loop.h"

#include "clock.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace fabric
{
namespace
{

void control(const platform::unique_fd &poll, int operation, int fd, uint32_t events, uint64_t tag)
{
  epoll_event event{};
  event.events = events;
  event.data.u64 = tag;
  if (epoll_ctl(poll.get(), operation, fd, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

int wait_ms(int64_t deadline_ns)
{
  if (deadline_ns == NEVER_NS) {
    return -1;
  }
  const int64_t left_ns = std::clamp<int64_t>(deadline_ns - now_ns(), 0, 60 * SECOND_NS);
  return static_cast<int>((left_ns + MS_NS - 1) / MS_NS);
}

}  // namespace

event_loop::event_loop() : poll_(epoll_create1(EPOLL_CLOEXEC))
{
  if (!poll_) {
    throw std::system_error(errno, std::generic_category(), "epoll_create1");
  }
}

void event_loop::watch(int fd, uint32_t events, handler call)
{
  const uint64_t tag = ++last_tag_;
  control(poll_, EPOLL_CTL_ADD, fd, events, tag);
  tags_[fd] = tag;
  watched_[tag] = std::make_shared<watched>(watched{fd, std::move(call)});
}

void event_loop::change(int fd, uint32_t events)
{
  control(poll_, EPOLL_CTL_MOD, fd, events, tags_.at(fd));
}

void event_loop::forget(int fd)
{
  const auto found = tags_.find(fd);
  if (found != tags_.end()) {
    epoll_ctl(poll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    watched_.erase(found->second);
    tags_.erase(found);
  }
}

void event_loop::run_once(int64_t deadline_ns)
{
  std::array<epoll_event, 64> events;
  const int count = epoll_wait(poll_.get(), events.data(), static_cast<int>(events.size()), wait_ms(deadline_ns));
  for (size_t i = 0; count > 0 && i < static_cast<size_t>(count); ++i) {
    const auto found = watched_.find(events[i].data.u64);
    if (found != watched_.end()) {
      const std::shared_ptr<watched> kept = found->second;
      kept->call(events[i].events);
    }
  }
}

}  // namespace fabric
