/// `kesh metrics`: the status of the daemon in Prometheus' text format, version 0.0.4.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kesh
{

/// Each metric with its help and type. Names that the status lacks are left out, as those of a node without a cluster.
std::string metrics_text(const nlohmann::json &status);

/// Writes them to stdout, or replaces `file` by them at once, as a collector of text files wants it. Returns an exit
/// code.
int metrics_command(const std::string &socket_path, const std::string &file);

}  // namespace kesh
