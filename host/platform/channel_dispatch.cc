#include "channel_dispatch.h"

namespace platform
{
namespace
{
constexpr size_t QUEUE_MAX_BYTES = size_t{64} << 20;
}

void channel_dispatch::start()
{
  {
    const lock_scope lock(lock_);
    stopping_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void channel_dispatch::stop()
{
  {
    const lock_scope lock(lock_);
    stopping_ = true;
    control_.clear();
    bulk_.clear();
    changed_.signal();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

void channel_dispatch::set_hook(hook_function hook)
{
  const lock_scope lock(lock_);
  hook_ = hook;
}

void channel_dispatch::clear_hook(hook_function hook)
{
  const lock_scope lock(lock_);
  if (hook_ == hook) {
    hook_ = nullptr;
  }
}

bool channel_dispatch::keep(message_list &from, message_list &to)
{
  bool all_kept = true;
  while (!from.empty()) {
    message_ptr one = from.pop_front();
    if (control_.bytes() + bulk_.bytes() + sizeof(message) + one->datagram_size() > QUEUE_MAX_BYTES) {
      counters_.drop(channel_, drop_reason::receive_overflow);
      all_kept = false;
    } else {
      to.push_back(std::move(one));
    }
  }
  return all_kept;
}

void channel_dispatch::put(message_list &control, message_list &bulk)
{
  bool report = false;
  {
    const lock_scope lock(lock_);
    if (stopping_) {
      return;
    }
    const bool control_kept = keep(control, control_);
    const bool bulk_kept = keep(bulk, bulk_);
    report = !(control_kept && bulk_kept) && !overflow_reported_;
    overflow_reported_ |= report;
    changed_.signal();
  }
  if (report) {
    log_line(log_level::warning, "messaging: channel " + std::to_string(channel_) +
                                     ": receive queue full, its hook is too slow; messages are lost");
  }
}

void channel_dispatch::run()
{
  const lock_scope lock(lock_);
  while (!stopping_) {
    message_ptr one = control_.empty() ? bulk_.pop_front() : control_.pop_front();
    if (!one) {
      overflow_reported_ = false;
      changed_.wait(lock_);
      continue;
    }
    if (hook_ == nullptr) {
      counters_.drop(channel_, drop_reason::no_hook);
      continue;
    }
    // From here on the call is decided; it is made with no lock held.
    const hook_function hook = hook_;
    lock_.unlock();
    if (gate_.lets_in(*one, channel_)) {
      counters_.count_received(channel_);
      hook(one->object());
    }
    one.reset();
    lock_.lock();
  }
}

}  // namespace platform
