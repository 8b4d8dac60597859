#include "control_commands.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "control_streams.h"
#include "exit_codes.h"
#include "platform.h"
#include "socket_text.h"
#include "status.h"
#include "vx_cons.h"

namespace kesh
{

using nlohmann::json;

namespace
{

constexpr timeval REQUEST_TIMEOUT{10, 0};

bool stop_daemon(service &, const json &, control_peer &peer)
{
  platform::log_line(platform::log_level::info, "stop requested on the control socket");
  return peer.accept({});
}

bool start_protocol(service &host, const json &, control_peer &peer)
{
  std::string error;
  const int code = host.start(error);
  if (code == EXIT_OK) {
    peer.accept({});
  } else {
    peer.refuse(code, error);
  }
  return false;
}

bool leave(service &host, const json &, control_peer &peer)
{
  host.leave();
  peer.accept({});
  return false;
}

bool reinit(service &host, const json &, control_peer &peer)
{
  std::string error;
  const int code = host.reinit(error);
  if (code == EXIT_OK) {
    peer.accept({});
  } else {
    peer.refuse(code, error);
  }
  return false;
}

bool slow(service &host, const json &request, control_peer &peer)
{
  constexpr uint32_t WAIT_MS_MAX = 600'000;
  const std::string hook = request.at("hook").get<std::string>();
  const uint32_t wait_ms = request.at("ms").get<uint32_t>();
  if ((hook != "deliver" && hook != "state") || wait_ms > WAIT_MS_MAX) {
    peer.refuse(EXIT_USAGE, "hook: deliver or state; ms: at most " + std::to_string(WAIT_MS_MAX));
    return false;
  }
  (hook == "deliver" ? host.delays.deliver_ms : host.delays.state_ms) = wait_ms;
  platform::log_line(platform::log_level::warning,
                     "the " + hook + " hook takes " + std::to_string(wait_ms) + " ms longer: test aid");
  peer.accept({});
  return false;
}

bool show_status(service &host, const json &, control_peer &peer)
{
  peer.accept({{"status", status_collect(host)}});
  return false;
}

bool say(service &host, const json &request, control_peer &peer)
{
  const std::string text = request.at("text").get<std::string>();
  if (text.size() > SAY_TEXT_MAX) {
    peer.refuse(EXIT_USAGE, "a cluster message has at most " + std::to_string(SAY_TEXT_MAX) + " bytes");
  } else if (vx_cons_cluster_active() == 0) {
    peer.refuse(EXIT_REFUSED, "the node is not active");
  } else {
    const std::string bytes = say_message_encode(static_cast<uint8_t>(host.configured.node_id), text);
    vx_cons_bcast_clmsg(0, reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<uint32_t>(bytes.size()));
    peer.accept({});
  }
  return false;
}

bool block(service &, const json &request, control_peer &peer)
{
  const uint32_t mask = request.at("mask").get<uint32_t>();
  platform::messaging_block(mask);
  platform::log_line(platform::log_level::warning, mask == 0 ? "messages of all nodes are heard again"
                                                             : "messages of some nodes are dropped: test aid");
  peer.accept({});
  return false;
}

using handler = std::function<bool(service &, const json &, control_peer &)>;

const std::map<std::string, handler> &handlers()
{
  static const std::map<std::string, handler> table = {
      {"status", show_status},    {"submit", serve_submit}, {"load", serve_load},
      {"journal", serve_journal}, {"heard", serve_heard},   {"say", say},
      {"start", start_protocol},  {"leave", leave},         {"reinit", reinit},
      {"stop", stop_daemon},      {"slow", slow},           {"block", block}};
  return table;
}

}  // namespace

bool control_serve(service &host, int fd)
{
  control_peer peer(fd);
  // A client that connects and sends nothing must not occupy a thread for ever.
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &REQUEST_TIMEOUT, sizeof REQUEST_TIMEOUT);
  std::string line;
  const read_result result = peer.reader.read_line(line, SOCKET_REQUEST_MAX);
  if (result != read_result::line) {
    if (result == read_result::too_long) {
      peer.refuse(EXIT_USAGE, "the request is too long");
    }
    return false;
  }
  constexpr timeval NO_TIMEOUT{0, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &NO_TIMEOUT, sizeof NO_TIMEOUT);
  try {
    const json request = json::parse(line);
    const auto found = handlers().find(request.at("op").get<std::string>());
    if (found == handlers().end()) {
      peer.refuse(EXIT_USAGE, "unknown operation");
      return false;
    }
    return found->second(host, request, peer);
  } catch (const json::exception &failure) {
    peer.refuse(EXIT_USAGE, std::string("the request is not understood: ") + failure.what());
    return false;
  }
}

}  // namespace kesh
