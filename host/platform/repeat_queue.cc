#include "repeat_queue.h"

#include <algorithm>
#include <chrono>

namespace platform
{
namespace
{

constexpr int64_t BUSY_RETRY_US = 1000;

int64_t now_us()
{
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void repeat_queue::start(uint32_t interval_ms)
{
  {
    const lock_scope lock(lock_);
    interval_us_ = int64_t{interval_ms} * 1000;
    stopping_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void repeat_queue::stop()
{
  {
    const lock_scope lock(lock_);
    stopping_ = true;
    queued_.clear();
    changed_.signal();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

int64_t repeat_queue::period_us(const message &one) const
{
  return std::max(one.interval, 1u) * interval_us_;
}

void repeat_queue::add(message_ptr added)
{
  const lock_scope lock(lock_);
  const bool busy = out_.send(*added) == send_result::busy;
  added->due_us = now_us() + (busy ? BUSY_RETRY_US : period_us(*added));
  // Most messages are taken back within milliseconds. To wake the thread for each would cost more than to send it.
  if (added->due_us < wakes_at_us_) {
    changed_.signal();
  }
  queued_.push_back(std::move(added));
}

void repeat_queue::remove(uint64_t id)
{
  const lock_scope lock(lock_);
  queued_.remove_if([&](const message &one) { return one.id == id; });
}

void repeat_queue::remove(uint32_t channel, uint32_t key, bool any_key)
{
  const lock_scope lock(lock_);
  queued_.remove_if([&](const message &one) { return one.channel == channel && (any_key || one.key == key); });
}

size_t repeat_queue::size()
{
  const lock_scope lock(lock_);
  return queued_.count();
}

// Only a few messages are queued at a time: one per waiting submission and register.
void repeat_queue::send_due(int64_t now)
{
  bool ended = false;
  for (message *one = queued_.first(); one != nullptr; one = one->next) {
    if (one->due_us > now) {
      continue;
    }
    if (out_.send(*one) == send_result::busy) {
      one->due_us = now + BUSY_RETRY_US;
      continue;
    }
    one->due_us = std::max(one->due_us, now - period_us(*one)) + period_us(*one);
    if (one->repeat > 0) {
      ended |= --one->repeat == 0;
    }
  }
  if (ended) {
    queued_.remove_if([](const message &one) { return one.repeat == 0; });
  }
}

int64_t repeat_queue::next_due_us()
{
  int64_t due = INT64_MAX;
  for (const message *one = queued_.first(); one != nullptr; one = one->next) {
    due = std::min(due, one->due_us);
  }
  return due;
}

void repeat_queue::run()
{
  const lock_scope lock(lock_);
  while (!stopping_) {
    wakes_at_us_ = next_due_us();
    if (wakes_at_us_ == INT64_MAX) {
      changed_.wait(lock_);
    } else if (wakes_at_us_ > now_us()) {
      changed_.wait_until(lock_, std::chrono::steady_clock::time_point(std::chrono::microseconds(wakes_at_us_)));
    } else {
      send_due(now_us());
    }
  }
}

}  // namespace platform
