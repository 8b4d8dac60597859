/// The names by which the nodes of a cluster know each other, and no others.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesh
{

/// Addresses of `count` nodes, locally administered, the same on each node: 02, four octets of a SHA-256 over
/// generation, count and name, the node's number. The first one is the library's cluster id, so clusters of other
/// names, other generations of this one, and a node that was told another count, do not hear each other: a quorum is no
/// quorum of another count.
std::vector<std::string> cluster_macs(const std::string &name, uint64_t generation, uint32_t count);

/// Why it is no name that the key cluster.name takes. Empty: it is one.
std::string cluster_name_fault(const std::string &name);
/// Why these cannot be the addresses of `count` nodes; empty: they can.
std::string macs_fault(const std::vector<std::string> &macs, uint32_t count);

/// The name of a cluster of this machine alone.
std::string trial_cluster_name();

}  // namespace kesh
