/// What the configuration says of the cluster, as hellos tell it.
#pragma once

#include <cstdint>

#include "cluster/hello.h"
#include "settings.h"

namespace kesh
{

/// The number that the library makes of the address of node 1: the id of the cluster in messages. 0: none.
uint64_t cluster_number(const settings &configured);
/// Printable, the address always written in the same way.
cluster_identity configured_cluster(const settings &configured);

}  // namespace kesh
