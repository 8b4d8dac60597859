/// A cluster that begins another life, generation N + 1, with the stores of the one before: after a majority of the
/// library's records was lost, say. The library starts from nothing, so whoever leads first gives its store to all.
/// That must be the node that has applied most, and the others' histories must be its beginning. What was acknowledged
/// last may have been applied by one node alone, so all are waited for, but those whose stores a person says are lost.
///
/// On each node, while no daemon runs: the library's records are reset, the store gets the new identity, the file
/// kesh.standing says "reformed". Nodes that are still in generation N have another cluster id, so the library does
/// not hear them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cluster/hello.h"

namespace kesh
{

/// Gives a store another identity; one that was restored is complete from then on. Harmless if it has it already. No
/// daemon may have it open. Throws a store_failure, also if it is neither of `from` nor of `to`; it is then as it was.
void store_change_identity(const std::string &path, const std::string &from, const std::string &to);

/// What another node of this cluster has said since the start of the daemon.
struct reform_voice {
  uint32_t node = 0;
  bool is_member = true;  ///< of this generation
  uint32_t decision = 0;
  bool is_live = false;  ///< heard lately
  /// Only a node that was reformed compares: a new one may have lost the disk with what it held.
  standing stands = standing::reformed;
  told_position said;
};

struct reform_node {
  uint32_t count = 0;  ///< nodes of the cluster
  uint32_t number = 0;
  uint32_t without = 0;  ///< bit node - 1: its store is lost for good
  told_position position;
};

/// Why this node, which knows no decision of this generation, may not lead first; empty: it may. Pure. A majority has
/// to be heard, all whole stores compared but those that are lost, and at least so many that no quorum was without one
/// of them. `own_hash`: H(n) of the own store, if it is kept.
std::string reform_obstacle(const reform_node &own, const std::vector<reform_voice> &voices,
                            const std::function<std::optional<chain_hash>(uint64_t n)> &own_hash);

}  // namespace kesh
