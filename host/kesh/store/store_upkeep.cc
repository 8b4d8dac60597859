#include "store/store_upkeep.h"

#include "platform.h"

namespace kesh
{

using platform::lock_scope;

void store_upkeep::start(store &of, const upkeep_settings &settings)
{
  {
    lock_scope scope(lock_);
    is_stopping_ = false;
  }
  thread_ = std::thread([this, &of, settings] { run(of, settings); });
}

void store_upkeep::stop()
{
  {
    lock_scope scope(lock_);
    is_stopping_ = true;
    stopped_.signal_all();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

bool store_upkeep::is_stopping()
{
  lock_scope scope(lock_);
  return is_stopping_;
}

void store_upkeep::run(store &of, const upkeep_settings &settings)
{
  while (!is_stopping()) {
    try {
      round(of, settings.keep);
    } catch (const std::exception &failure) {
      // Nothing is lost: the store only grows. The writer says so itself if it cannot write either.
      platform::log_line(platform::log_level::error, std::string("upkeep of the store: ") + failure.what());
    }
    const auto deadline = std::chrono::steady_clock::now() + settings.period;
    lock_scope scope(lock_);
    while (!is_stopping_ && stopped_.wait_until(lock_, deadline)) {
    }
  }
}

void store_upkeep::round(store &of, const retention &keep)
{
  while (of.retention_step(keep, seconds_now())) {
    if (is_stopping()) {
      return;
    }
  }
  if (const uint64_t n = of.position().n; n != seen_n_) {
    of.checkpoint();
    seen_n_ = n;
  }
}

}  // namespace kesh
