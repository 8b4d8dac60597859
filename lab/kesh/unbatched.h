/// Payloads of one item that go to the library one by one, past the batches and the clients: what a line costs at
/// least.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "daemon/service.h"

namespace kesh_lab
{

/// The operation of the control socket: after "seconds" of payloads with "bytes" of text each sends what
/// lab/bench/results.h prints.
void serve_unbatched(kesh::service &host, const nlohmann::json &request, kesh::control_peer &peer);

}  // namespace kesh_lab
