/// The operation "probe" of the control socket: what the network between this node and each other one does.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "control/peer.h"
#include "daemon/service.h"

namespace kesh
{

/// {"op": "probe", "count": 1 to PROBE_COUNT_MAX} is answered, after some seconds, with {"probe": {"count": asks to
/// each node by each way, "peers": [{"node", "address", "unicast": way, "multicast": way, or null where there is no
/// group}]}}. A way: {"sent", "answered", "rtt_us": {"min", "avg", "max"} or null, "mtu": bytes of the longest IP
/// packet that came there undivided, 0: none}.
void probe(service &host, const nlohmann::json &request, control_peer &peer);

}  // namespace kesh
