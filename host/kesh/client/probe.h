/// "kesh probe": what the network between this node and each other one does.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kesh
{

/// A line for each other node. `probe`: as daemon/probe.h answers.
std::string probe_text(const nlohmann::json &probe);

/// Returns EXIT_OK if each node answered by each way, EXIT_REFUSED if not, or the code of what failed.
int probe_command(const std::string &socket_path, uint32_t count, bool as_json);

}  // namespace kesh
