#include "service.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <system_error>

#include "exit_codes.h"
#include "hooks.h"
#include "platform.h"
#include "vx_cons.h"

namespace kesh
{

using platform::lock_scope;
using platform::log_level;
using platform::log_line;

namespace
{

uint64_t now_ns()
{
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(since_1970).count());
}

}  // namespace

service::service(const settings &from)
    : configured(from), life(now_ns()), wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
  if (!wake_fd_) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  lines.on_failure = [this] { wake(); };
}

void service::wake() const
{
  const uint64_t one = 1;
  // This fails only when the counter is full, and then the reader wakes anyway.
  [[maybe_unused]] const ssize_t written = write(wake_fd_.get(), &one, sizeof one);
}

bool service::open_library()
{
  if (vx_cons_init() != 0) {
    return false;
  }
  hooks_register(*this);
  return true;
}

void service::close_library()
{
  events.note("cleanup-call");
  vx_cons_cleanup();
  events.note("cleanup-return");
}

int service::start(std::string &error)
{
  lock_scope scope(lifecycle_lock_);
  note_isolation();
  return start_locked(error);
}

int service::start_locked(std::string &error)
{
  if (stopping_) {
    error = "the daemon is stopping";
    return EXIT_REFUSED;
  }
  if (vx_cons_cluster_active() != 0) {
    return EXIT_OK;
  }
  if (vx_cons_cluster_enabled() == 0) {
    error = "no cluster is configured: run kesh configure, and set cluster.supported to yes";
    return EXIT_REFUSED;
  }
  if (!lines.repair()) {
    error = "the journal cannot be written (the log says why): make room, or restart the daemon";
    return EXIT_REFUSED;
  }
  lines.expect_redelivery();
  events.note("start-call");
  const int result = vx_cons_start();
  events.note("start-return", result);
  if (result != 0) {
    error = "the cluster protocol does not start: the log's last lines say why";
    return EXIT_RUNTIME;
  }
  was_active_ = true;
  log_line(log_level::info, "node " + std::to_string(vx_cons_get_node_id()) + " of " +
                                std::to_string(vx_cons_get_node_count()) + " is active");
  const lock_scope activity(activity_lock_);
  activity_.signal_all();
  return EXIT_OK;
}

void service::stop_locked()
{
  was_active_ = false;
  events.note("stop-call");
  vx_cons_stop();
  events.note("stop-return", platform::messaging_read_statistics().queued);
}

void service::leave()
{
  lock_scope scope(lifecycle_lock_);
  note_isolation();
  stop_locked();
  log_line(log_level::info, "not active any more, as asked; kesh start joins the cluster again");
}

int service::reinit(std::string &error)
{
  lock_scope scope(lifecycle_lock_);
  note_isolation();
  if (stopping_) {
    error = "the daemon is stopping";
    return EXIT_REFUSED;
  }
  const bool start_again = was_active_;
  was_active_ = false;
  close_library();
  if (!open_library()) {
    error = "the library does not come up again: the log's last lines say why";
    return EXIT_RUNTIME;
  }
  return start_again ? start_locked(error) : EXIT_OK;
}

void service::shut_down()
{
  stopping_ = true;
  {
    const lock_scope activity(activity_lock_);
    activity_.signal_all();
  }
  lock_scope scope(lifecycle_lock_);
  note_isolation();
  stop_locked();
}

void service::stop_for_journal()
{
  lock_scope scope(lifecycle_lock_);
  if (!lines.failed() || !was_active_) {
    return;
  }
  stop_locked();
  log_line(log_level::error, "not active any more: the journal cannot be written; repair that, then kesh start");
}

void service::watch_isolation()
{
  lock_scope scope(lifecycle_lock_);
  note_isolation();
}

void service::note_isolation()
{
  if (was_active_ && vx_cons_cluster_active() == 0) {
    was_active_ = false;
    events.note("isolated");
    log_line(log_level::error, "ISOLATED: this node left the cluster because of its disk (lines above say which "
                               "file); submissions are refused until kesh start or a restart");
  }
}

bool service::wait_active(steady_time deadline)
{
  const lock_scope scope(activity_lock_);
  while (!stopping_ && vx_cons_cluster_active() == 0) {
    if (!activity_.wait_until(activity_lock_, deadline)) {
      return false;
    }
  }
  return !stopping_;
}

bool service::pause(steady_time deadline)
{
  const lock_scope scope(activity_lock_);
  while (!stopping_ && activity_.wait_until(activity_lock_, deadline)) {
  }
  return !stopping_;
}

}  // namespace kesh
