#include "daemon/operations.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "control/request.h"
#include "daemon/key_file.h"
#include "daemon/probe.h"
#include "daemon/status.h"
#include "exit_codes.h"
#include "items/item_text.h"
#include "platform.h"
#include "store/store_copy.h"
#include "store/store_reader.h"
#include "vx_cons.h"

namespace kesh
{

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{

// How soon a stream that follows notices that its client has left.
constexpr milliseconds FOLLOW_CHECK{500};
constexpr size_t READ_LINES = 1000;
constexpr size_t READ_BYTES = 1 << 20;

void answer(control_peer &peer, int code, const std::string &error)
{
  if (code == EXIT_OK) {
    peer.accept();
  } else {
    peer.refuse(code, error);
  }
}

void stop_daemon(service &host, const json &, control_peer &peer)
{
  platform::log_line(platform::log_level::info, "stop requested on the control socket");
  peer.keep_open();
  peer.accept();
  host.request_stop();
}

void start_protocol(service &host, const json &, control_peer &peer)
{
  std::string error;
  const int code = host.start(error);
  answer(peer, code, error);
}

void leave(service &host, const json &, control_peer &peer)
{
  host.leave();
  peer.accept();
}

void reinit(service &host, const json &, control_peer &peer)
{
  std::string error;
  const int code = host.reinit(error);
  answer(peer, code, error);
}

void show_status(service &host, const json &, control_peer &peer)
{
  peer.accept({{"status", status_collect(host)}});
}

void health(service &host, const json &, control_peer &peer)
{
  const auto told = [](const lead_answer &answer) { return json{{"yes", answer.yes}, {"reason", answer.reason}}; };
  peer.accept({{"ready", told(host.link->ready())}, {"eligible", told(host.link->eligible())}});
}

void vrrp(service &host, const json &, control_peer &peer)
{
  host.link->vrrp_changed();
  peer.accept();
}

void say(service &host, const json &request, control_peer &peer)
{
  const std::string text = request.at("text").get<std::string>();
  if (text.size() > SAY_TEXT_MAX) {
    throw request_error("a cluster message has at most " + std::to_string(SAY_TEXT_MAX) + " bytes");
  }
  if (vx_cons_cluster_active() == 0) {
    peer.refuse(EXIT_REFUSED, "the node is not active");
    return;
  }
  const std::string bytes = say_message_encode(static_cast<uint8_t>(host.configured.node_id), text);
  vx_cons_bcast_clmsg(0, reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<uint32_t>(bytes.size()));
  peer.accept();
}

std::string row_of(const store_line &line)
{
  std::string row = std::to_string(line.line) + '\t' + std::to_string(line.n) + '\t' + line.key + '\t' +
                    tag_text(line.origin, line.life, line.sequence) + '\t' + std::to_string(line.attempt) + '\t' +
                    std::to_string(line.at) + '\t';
  text_escape(row, line.text);
  row += '\n';
  return row;
}

void send_end(control_peer &peer)
{
  peer.send(std::string(STREAM_END) + '\n');
}

/// Sends the lines that are there from `next` on. False once the client has left.
bool send_lines(store &from, uint64_t &next, control_peer &peer)
{
  for (;;) {
    const std::vector<store_line> lines = store_read_lines(from, next, READ_LINES, READ_BYTES);
    const uint64_t first = lines.empty() ? from.position().lines + 1 : lines.front().line;
    if (first > next && !peer.send("# lines " + std::to_string(next) + " to " + std::to_string(first - 1) +
                                   " are not kept on this node\n")) {
      return false;
    }
    next = std::max(next, first);
    std::string rows;
    for (const store_line &line : lines) {
      rows += row_of(line);
      next = line.line + 1;
    }
    if (!peer.send(rows)) {
      return false;
    }
    if (lines.empty()) {
      return true;
    }
  }
}

void serve_journal(service &host, const json &request, control_peer &peer)
{
  const bool follow = request.value("follow", false);
  uint64_t next = request_number<uint64_t>(request, "since", 1, INT64_MAX, 1);
  if (!peer.accept()) {
    return;
  }
  for (;;) {
    const store_position seen = host.lines.position();
    if (next <= seen.lines && !send_lines(host.lines, next, peer)) {
      return;
    }
    if (!follow) {
      send_end(peer);
      return;
    }
    while (!host.lines.wait_change(seen.lines, seen.generation, steady_clock::now() + FOLLOW_CHECK)) {
      if (peer.is_gone() || host.stopping()) {
        return;
      }
    }
  }
}

void serve_heard(service &host, const json &request, control_peer &peer)
{
  const bool follow = request.value("follow", false);
  if (!peer.accept()) {
    return;
  }
  uint64_t sent = 0;
  do {
    std::string out;
    for (const heard_message &message : host.messages.after(sent)) {
      out += std::to_string(message.time_s) + ' ' + std::to_string(message.node) + ' ';
      text_escape(out, message.text);
      out += '\n';
      sent = message.number;
    }
    if (!peer.send(out)) {
      return;
    }
    if (follow) {
      host.messages.wait_after(sent, FOLLOW_CHECK);
    }
  } while (follow && !host.stopping() && !peer.is_gone());
  if (!follow) {
    send_end(peer);
  }
}

void set_log_level(service &, const json &request, control_peer &peer)
{
  const std::string name = request.at("level").get<std::string>();
  if (!platform::log_set_level(name)) {
    throw request_error("level: \"" + name + "\" is none of debug, info, warning, error");
  }
  platform::log_line(platform::log_level::warning, "log: level " + name + " from here on, as asked");
  peer.accept();
}

void reload(service &, const json &, control_peer &peer)
{
  std::string error;
  const bool is_done = reload_keys(error);
  answer(peer, is_done ? EXIT_OK : EXIT_CONFIG, error);
}

/// A state replaces the store, or the daemon ends: both wait for who reads it.
bool must_end_use(service &host)
{
  return host.lines.gate().is_closing() || host.stopping();
}

void verify(service &host, const json &, control_peer &peer)
{
  verify_result found;
  try {
    const use_scope use(host.lines.gate());
    found = store_verify(host.lines.path(), [&host] { return must_end_use(host); });
  } catch (const store_failure &failure) {
    if (failure.is_interruption()) {
      peer.refuse(EXIT_REFUSED,
                  "given up, since the store is being replaced or the daemon ends: give the command again");
    } else {
      peer.refuse(EXIT_CONFIG, failure.what());
    }
    return;
  }
  peer.accept({{"fault", found.fault},
               {"n", found.n},
               {"lines", found.lines},
               {"verified", found.verified},
               {"bare", found.bare}});
}

}  // namespace

operation_table daemon_operations(service &host)
{
  using handler = void (*)(service &, const json &, control_peer &);
  const auto bound = [&host](operation_class kind, handler run) {
    return operation{kind, [&host, run](const json &request, control_peer &peer) { run(host, request, peer); }};
  };
  operation_table table = {{"status", bound(operation_class::question, show_status)},
                           {"health", bound(operation_class::question, health)},
                           {"vrrp", bound(operation_class::ending, vrrp)},
                           {"stop", bound(operation_class::ending, stop_daemon)},
                           {"leave", bound(operation_class::ending, leave)},
                           {"start", bound(operation_class::command, start_protocol)},
                           {"reinit", bound(operation_class::command, reinit)},
                           {"say", bound(operation_class::command, say)},
                           {"log_level", bound(operation_class::command, set_log_level)},
                           {"reload", bound(operation_class::command, reload)},
                           {"verify", bound(operation_class::command, verify)},
                           {"probe", bound(operation_class::command, probe)},
                           {"journal", bound(operation_class::stream, serve_journal)},
                           {"heard", bound(operation_class::stream, serve_heard)}};
  table.merge(host.watcher.operations(host));
  return table;
}

}  // namespace kesh
