#include "daemon/daemon.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "config/check.h"
#include "control/server.h"
#include "daemon/key_file.h"
#include "daemon/operations.h"
#include "daemon/service.h"
#include "daemon/service_manager.h"
#include "daemon/status.h"
#include "exit_codes.h"
#include "items/item_text.h"
#include "metrics/metrics_server.h"
#include "metrics/metrics_text.h"
#include "platform.h"
#include "vx_cons.h"
#include "vx_host.h"

namespace kesh
{

using platform::log_level;
using platform::log_line;

namespace
{

// The library does not report that it left the cluster by itself. The log says so within this time.
constexpr int ISOLATION_CHECK_MS = 500;
// Of a start or an end: to read a large store, to write what waits for a slow disk.
constexpr std::chrono::minutes LONGEST_STEP{10};

/// Blocks the daemon's signals in all threads. They are read from the descriptor that this returns.
platform::unique_fd open_signals()
{
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&signals, number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return platform::unique_fd(signalfd(-1, &signals, SFD_CLOEXEC));
}

/// Reports the failure to the log, and also to stderr for an operator who starts the daemon by hand.
int fail(int code, const std::string &error)
{
  log_line(log_level::error, "kesh: " + error);
  if (!platform::config_text("log.file", "").empty()) {
    fprintf(stderr, "kesh: %s\n", error.c_str());
  }
  return code;
}

void handle_signal(int signal_fd, service &host)
{
  signalfd_siginfo info;
  if (read(signal_fd, &info, sizeof info) != sizeof info) {
    return;
  }
  if (info.ssi_signo != SIGHUP) {
    log_line(log_level::info, std::string("kesh: ") + strsignal(static_cast<int>(info.ssi_signo)) + ", stopping");
    host.request_stop();
    return;
  }
  std::string error;
  if (platform::log_reopen(error)) {
    log_line(log_level::info, "kesh: log opened again");
  } else {
    log_line(log_level::error, "kesh: " + error);
  }
  if (!reload_keys(error)) {
    log_line(log_level::error, "kesh: " + error);
  }
}

void main_loop(service &host, int signal_fd)
{
  pollfd waited[] = {{signal_fd, POLLIN, 0}, {host.wake_fd(), POLLIN, 0}};
  while (!host.stop_requested()) {
    if (poll(waited, 2, ISOLATION_CHECK_MS) < 0) {
      continue;
    }
    if (waited[0].revents != 0) {
      handle_signal(signal_fd, host);
    }
    if (waited[1].revents != 0) {
      uint64_t count;
      [[maybe_unused]] const ssize_t got = read(host.wake_fd(), &count, sizeof count);
    }
    host.watch();
    service_manager::is_alive();
  }
}

/// A node whose metrics nobody can read goes on.
void tell_metrics(metrics_server &metrics, const std::string &where)
{
  std::string error;
  if (!where.empty() && !metrics.start(where, error)) {
    log_line(log_level::error, "kesh: metrics.listen: " + error + "; the metrics are told by kesh metrics alone");
  }
}

/// Runs the library while messaging is up.
int run_library(service &host, int signal_fd, control_server &control)
{
  service_manager::takes_up_to(LONGEST_STEP);
  if (!host.open_library()) {
    return fail(EXIT_RUNTIME, "the library does not come up: the log's last lines say why");
  }
  std::string error;
  int code = EXIT_OK;
  metrics_server metrics([&host] { return metrics_text(status_collect(host)); });
  tell_metrics(metrics, host.configured.metrics_listen);
  if (!control.start(error)) {
    code = fail(EXIT_CONFIG, error);
  } else if (vx_cons_cluster_enabled() == 0) {
    log_line(log_level::warning, "kesh: no cluster is configured; waiting for kesh stop and kesh configure");
  } else if (!host.configured.start) {
    log_line(log_level::info, "kesh: kesh.start is no; waiting for kesh start");
  } else if ((code = host.start(error)) == EXIT_REFUSED) {
    // The daemon stays, to tell everybody why; ended, it would be started again and again.
    log_line(log_level::error, "kesh: " + error + "; waiting for kesh stop");
    code = EXIT_OK;
  } else if (code != EXIT_OK) {
    fail(code, error);
  }
  if (code == EXIT_OK) {
    service_manager::is_ready();
    main_loop(host, signal_fd);
  }
  service_manager::is_stopping();
  service_manager::takes_up_to(LONGEST_STEP);
  host.shut_down();
  metrics.stop();
  control.stop();
  host.close_library();
  return code;
}

/// Runs all that hears other nodes.
int run_cluster(service &host, int signal_fd)
{
  control_settings where;
  where.socket_path = host.configured.socket_path;
  where.submit_fields = {{"node", host.configured.node_id}, {"life", hex_text(host.life, 16)}};
  control_server control(std::move(where), daemon_operations(host), *host.submissions);
  std::string error;
  const bool enabled = vx_cons_cluster_enabled() != 0;
  name_default_keys();
  if (enabled && !platform::messaging_start(error)) {
    return fail(EXIT_CONFIG, error);
  }
  host.link->start();
  const int code = run_library(host, signal_fd, control);
  host.link->stop();
  if (enabled) {
    platform::messaging_stop();
  }
  return code;
}

int run_service(const settings &configured, int signal_fd, observer &watch)
{
  service host(configured, watch);
  std::string error;
  if (!watch.begin(host, error)) {
    return fail(EXIT_CONFIG, error);
  }
  service_manager::takes_up_to(LONGEST_STEP);
  int code = host.open_store(error);
  if (code != EXIT_OK) {
    return fail(code, error);
  }
  code = run_cluster(host, signal_fd);
  host.close_store();
  log_line(log_level::info, "kesh: stopped");
  return code;
}

/// Tells all faults of the configuration, in the log where that can be opened.
int open_configuration(const std::string &config_path, bool log_to_stderr, observer &watch)
{
  const std::vector<std::string> faults = config_faults(config_path, watch.config_keys());
  std::string error;
  bool is_open = platform::config_load(config_path, error);
  if (is_open && log_to_stderr) {
    vx_cfg_set(nullptr, "log.file");
  }
  is_open = is_open && platform::log_open(error);
  if (!is_open) {
    vx_cfg_set(nullptr, "log.file");  // the log is stderr, where nothing has to be told twice
  }
  for (const std::string &fault : faults) {
    fail(EXIT_CONFIG, fault);
  }
  if (!faults.empty()) {
    return EXIT_CONFIG;
  }
  return is_open ? EXIT_OK : fail(EXIT_CONFIG, error);
}

int run_daemon(const std::string &config_path, bool log_to_stderr, observer &watch)
{
  std::string error;
  settings configured;
  const platform::unique_fd signals = open_signals();
  if (!signals) {
    return fail(EXIT_RUNTIME, std::string("signalfd: ") + strerror(errno));
  }
  if (const int code = open_configuration(config_path, log_to_stderr, watch); code != EXIT_OK) {
    return code;
  }
  if (!settings_read(configured, error)) {
    return fail(EXIT_CONFIG, error);
  }
  log_line(log_level::info, "kesh: starting, build " + std::to_string(vx_firmware_dova_build_nr) + ", process " +
                                std::to_string(getpid()));
  try {
    return run_service(configured, signals.get(), watch);
  } catch (const std::exception &failure) {
    return fail(EXIT_RUNTIME, failure.what());
  }
}

}  // namespace

int daemon_run(const std::string &config_path, bool log_to_stderr, observer &watch)
{
  constexpr std::chrono::seconds LAST_LINES_TIME{5};
  const int code = run_daemon(config_path, log_to_stderr, watch);
  platform::log_flush(LAST_LINES_TIME);
  return code;
}

}  // namespace kesh
