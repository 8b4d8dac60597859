#include "client/probe.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "client/control_client.h"
#include "client/line_stream.h"
#include "exit_codes.h"

namespace kesh
{

using nlohmann::json;

namespace
{

// Beside a hundredth of a second for each ask.
constexpr control_client::wait_time PROBE_WAIT{10};
constexpr control_client::wait_time ASK_WAIT{0.01};

bool has_answered(const json &way)
{
  return way.is_null() || way.at("answered") != 0;
}

std::string way_text(const char *name, const json &way)
{
  const auto sent = way.at("sent").get<uint32_t>();
  const auto answered = way.at("answered").get<uint32_t>();
  std::string text = std::string(name) + ' ' + std::to_string(answered) + " of " + std::to_string(sent);
  if (answered == 0) {
    return text;
  }
  const json &took = way.at("rtt_us");
  const auto ms = [&](const char *which) { return took.at(which).get<double>() / 1000; };
  char details[128];
  snprintf(details, sizeof details, " (loss %.3g%%), %.3f/%.3f/%.3f ms, MTU %u",
           100.0 * (sent - answered) / std::max(sent, 1u), ms("min"), ms("avg"), ms("max"),
           way.at("mtu").get<uint32_t>());
  return text + details;
}

std::string peer_text(const json &peer)
{
  const json &unicast = peer.at("unicast");
  const json &multicast = peer.at("multicast");
  const bool is_silent = unicast.at("answered") == 0 && (multicast.is_null() || !has_answered(multicast));
  return "node " + std::to_string(peer.at("node").get<uint32_t>()) + " (" + peer.at("address").get<std::string>() +
         "): " +
         (is_silent
              ? "no answer to probes"
              : way_text("unicast", unicast) + (multicast.is_null() ? "" : "; " + way_text("multicast", multicast))) +
         '\n';
}

}  // namespace

std::string probe_text(const json &probe)
{
  const json &peers = probe.at("peers");
  std::string text;
  for (const json &peer : peers) {
    text += peer_text(peer);
  }
  return peers.empty() ? "there is no other node\n" : text;
}

int probe_command(const std::string &socket_path, uint32_t count, bool as_json)
{
  control_client client;
  json reply;
  const int code =
      client.request(socket_path, {{"op", "probe"}, {"count", count}}, reply, PROBE_WAIT + count * ASK_WAIT);
  if (code != EXIT_OK) {
    return code;
  }
  const json &probe = reply.at("probe");
  if (!write_out(as_json ? probe.dump(2) + '\n' : probe_text(probe))) {
    return EXIT_RUNTIME;
  }
  const json &peers = probe.at("peers");
  const bool is_well = std::all_of(peers.begin(), peers.end(), [](const json &peer) {
    return has_answered(peer.at("unicast")) && has_answered(peer.at("multicast"));
  });
  return is_well ? EXIT_OK : EXIT_REFUSED;
}

}  // namespace kesh
