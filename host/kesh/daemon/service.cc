#include "daemon/service.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <ctime>
#include <system_error>

#include "daemon/disk_room.h"
#include "daemon/hooks.h"
#include "daemon/node_files.h"
#include "daemon/store_start.h"
#include "exit_codes.h"
#include "platform.h"
#include "vx_cons.h"
#include "vx_host.h"

namespace kesh
{

using platform::lock_scope;
using platform::log_level;
using platform::log_line;

namespace
{

constexpr const char *DURABLE_KEY = "cluster.durable_payloads";

uint64_t now_ns()
{
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(since_1970).count());
}

std::string time_text()
{
  const time_t now = time(nullptr);
  tm parts;
  char text[32];
  strftime(text, sizeof text, "%F %T%z", localtime_r(&now, &parts));
  return text;
}

bool is_active()
{
  return vx_cons_cluster_active() != 0;
}

}  // namespace

service::service(const settings &from, observer &of)
    : configured(from), life(now_ns()), watcher(of), wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
  if (!wake_fd_) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

void service::wake() const
{
  const uint64_t one = 1;
  // This fails only when the counter is full, and then the reader wakes anyway.
  [[maybe_unused]] const ssize_t written = write(wake_fd_.get(), &one, sizeof one);
}

int service::open_store(std::string &error)
{
  if (const int code = store_bring_up(lines, configured, states.put_aside, error); code != EXIT_OK) {
    return code;
  }
  upkeep_.start(lines, {.keep = configured.keep});
  link = std::make_unique<cluster_link>(configured, lines, make_link_functions());
  batcher_hooks hooks{.distribute = [this](std::string_view payload) { return distribute(payload); },
                      .is_active = [this] { return is_active() && link->may_submit().yes; },
                      .find_line =
                          [this](uint64_t sequence) {
                            return lines.find_line(static_cast<uint8_t>(configured.node_id), life, sequence);
                          }};
  submissions =
      std::make_unique<batcher>(static_cast<uint8_t>(configured.node_id), life, submit_limits{}, std::move(hooks));
  waiting = std::make_unique<waiting_clients>(*submissions);
  return EXIT_OK;
}

void service::close_store()
{
  if (submissions) {
    submissions->stop();
    submissions->join();
  }
  upkeep_.stop();
  lines.close();
}

link_functions service::make_link_functions()
{
  return {.role = [this] { return role(); },
          .isolated =
              [this] {
                const lock_scope scope(verdict_lock_);
                return isolated_;
              },
          .no_room = [] { return no_room_in(CONS_DIRECTORY, vx_cons_get_disk_reserve()); },
          .oldest_wait_s = [this] { return static_cast<uint64_t>(submissions->oldest_wait().count()); },
          .order_no_op = [this] { return order_no_op(); },
          .stop_protocol =
              [this](const std::string &reason) {
                const lock_scope scope(verdict_lock_);
                must_leave_ = reason;
                wake();
              },
          .restart_protocol = [this](const link_functions::stopped_work &work,
                                     std::string &error) { return restart(work, error) == EXIT_OK; },
          .may_submit_changed = [this] { submissions->activity_changed(); }};
}

node_role service::role() const
{
  const node_role left = role_;
  return left == node_role::follower && node_state_read() == "MASTER" ? node_role::leader : left;
}

bool service::order_no_op()
{
  std::string refusal;
  const uint64_t client = waiting->open(std::chrono::seconds(10), refusal);
  if (client == 0) {
    return false;
  }
  const item_result given = waiting->submit(client, item_kind::no_op, {});
  waiting->close(client);
  return given.fate == item_fate::applied;
}

int service::restart(const link_functions::stopped_work &work, std::string &error)
{
  lock_scope scope(lifecycle_lock_);
  note_isolation();
  if (stopping_ || !was_active_) {
    error = stopping_ ? "the daemon is stopping" : "the node is not active";
    return EXIT_REFUSED;
  }
  stop_locked();
  std::string start_error;
  const bool is_done = work(error);
  const int code = start_locked(start_error);
  if (code != EXIT_OK) {
    error = start_error;
  }
  return is_done ? code : EXIT_RUNTIME;
}

int service::distribute(std::string_view payload)
{
  return watcher.distribute(payload, [payload] {
    return vx_cons_distribute(reinterpret_cast<const uint8_t *>(payload.data()), static_cast<uint32_t>(payload.size()),
                              DATA_TYPE);
  });
}

bool service::open_library()
{
  // Here and not in the file, which an operator may have copied from elsewhere.
  int is_durable = 0;
  if (platform::config_text(DURABLE_KEY, "").empty()) {
    vx_cfg_set("yes", DURABLE_KEY);
  } else if (vx_cfg_is_enabled(&is_durable, DURABLE_KEY) == 0 && is_durable == 0) {
    log_line(log_level::warning,
             std::string("kesh: ") + DURABLE_KEY + " is off: a crash may lose what was acknowledged");
  }
  if (vx_cons_init() != 0) {
    return false;
  }
  hooks_register(*this);
  return true;
}

void service::close_library()
{
  watcher.noted("cleanup-call");
  vx_cons_cleanup();
  watcher.noted("cleanup-return");
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
  if (is_active()) {
    return EXIT_OK;
  }
  if (vx_cons_cluster_enabled() == 0) {
    error = "no cluster is configured: run kesh configure, and set cluster.supported to yes";
    return EXIT_REFUSED;
  }
  if (was_started_) {
    vx_cons_stop();  // it may have isolated itself a moment ago; no hook must run while the store is looked at
  }
  if (!link->before_library_start(error)) {
    return EXIT_REFUSED;
  }
  roll_overs.forget();
  std::string rejoins;
  if (const int code = store_make_fit(lines, link->is_reformed(), rejoins, error); code != EXIT_OK) {
    return code;
  }
  if (!rejoins.empty()) {
    states.rejoined++;
    watcher.noted("rejoin", rejoins);
  }
  watcher.noted("start-call");
  was_started_ = true;
  const int result = vx_cons_start();
  watcher.noted("start-return", std::to_string(result));
  if (result != 0) {
    link->library_stopped();
    error = "the cluster protocol does not start: the log's last lines say why";
    return EXIT_RUNTIME;
  }
  was_active_ = true;
  role_ = node_role::follower;
  {
    const lock_scope scope(verdict_lock_);
    isolated_.clear();
  }
  link->changed();
  link->library_started();
  log_line(log_level::info, "node " + std::to_string(vx_cons_get_node_id()) + " of " +
                                std::to_string(vx_cons_get_node_count()) + " is active");
  submissions->activity_changed();
  return EXIT_OK;
}

void service::stop_locked()
{
  was_active_ = false;
  role_ = node_role::stopped;
  link->library_stopped();
  watcher.noted("stop-call");
  vx_cons_stop();
  watcher.noted("stop-return", std::to_string(platform::messaging_read_statistics().queued));
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
  was_active_ = was_started_ = false;
  role_ = node_role::stopped;
  link->library_stopped();
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
  lines.end_waits();
  messages.end_waits();
  submissions->stop();
  lock_scope scope(lifecycle_lock_);
  note_isolation();
  stop_locked();
  submissions->join();
}

void service::watch()
{
  // A start or an end may take longer than the watchdog waits; the next pass looks again.
  if (!lifecycle_lock_.try_lock()) {
    return;
  }
  const lock_scope lifecycle(lifecycle_lock_, std::adopt_lock);
  std::string reason;
  {
    const lock_scope scope(verdict_lock_);
    reason.swap(must_leave_);
  }
  note_isolation();
  if (!reason.empty()) {
    stop_locked();
    log_line(log_level::error, "STOPPED: " + reason);
  }
}

void service::note_isolation()
{
  if (was_active_ && !is_active()) {
    was_active_ = false;
    role_ = node_role::isolated;
    {
      const lock_scope scope(verdict_lock_);
      isolated_ = " since " + time_text() + ": " + platform::log_last_critical();
    }
    link->library_stopped();
    watcher.noted("isolated");
    submissions->activity_changed();
    log_line(log_level::error, "ISOLATED: this node left the cluster because of its disk (lines above say which "
                               "file); submissions wait until kesh start or a restart, or for their time");
  }
}

}  // namespace kesh
