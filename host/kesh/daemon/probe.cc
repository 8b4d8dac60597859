#include "daemon/probe.h"

#include <nlohmann/json.hpp>

#include "control/request.h"
#include "exit_codes.h"
#include "message.h"
#include "messaging_settings.h"
#include "platform.h"
#include "probe/probe_count.h"
#include "seal/sealed_frame.h"

namespace kesh
{

using nlohmann::json;

namespace
{

constexpr uint32_t IP_AND_UDP = 20 + 8;

probe_plan plan_of(uint32_t count)
{
  const size_t seal = platform::messaging_read_statistics().seals_with ? platform::SEAL_OVERHEAD : 0;
  return {.count = count,
          .by_multicast = platform::config_text("messaging.group", "") != "none",
          .packet_extra = static_cast<uint32_t>(IP_AND_UDP + platform::WORD_SIZE + platform::ENVELOPE_SIZE + seal)};
}

json way_json(const probe_way &way)
{
  const json times = {
      {"min", way.min_us}, {"avg", way.answered == 0 ? 0 : way.sum_us / way.answered}, {"max", way.max_us}};
  return {{"sent", way.sent},
          {"answered", way.answered},
          {"rtt_us", way.answered == 0 ? json(nullptr) : times},
          {"mtu", way.largest}};
}

}  // namespace

void probe(service &host, const json &request, control_peer &peer)
{
  const auto count = request_number<uint32_t>(request, "count", 1, PROBE_COUNT_MAX, PROBE_COUNT_DEFAULT);
  if (!host.link->is_configured()) {
    peer.refuse(EXIT_REFUSED, "no cluster is configured");
    return;
  }
  const probe_plan plan = plan_of(count);
  std::vector<probe_peer> found;
  const auto must_end = [&] { return peer.is_gone() || host.stopping(); };
  if (!host.link->probes().run(plan, must_end, found)) {
    peer.refuse(EXIT_REFUSED, "another kesh probe is at work on this node");
    return;
  }
  json peers = json::array();
  for (const probe_peer &one : found) {
    peers.push_back({{"node", one.node},
                     {"address", platform::messaging_address(one.node)},
                     {"unicast", way_json(one.unicast)},
                     {"multicast", plan.by_multicast ? way_json(one.multicast) : json(nullptr)}});
  }
  peer.accept({{"probe", {{"count", count}, {"peers", peers}}}});
}

}  // namespace kesh
