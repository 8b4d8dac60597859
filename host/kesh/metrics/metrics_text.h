/// The status of the daemon in Prometheus' text format, version 0.0.4.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kesh
{

/// Each metric with its help and type. Names that the status lacks are left out, as those of a node without a cluster.
/// Throws nlohmann::json::exception if fields of every node are missing.
std::string metrics_text(const nlohmann::json &status);

}  // namespace kesh
