/// Whether the nodes have applied the same: a judge over what they say of their n and H(n).
///
/// Diverged means another H at the same n. A node that is ahead is compared when this one gets to where it was; one
/// that is behind, with the hashes kept here; and any two at their checkpoints. Incomplete nodes are not compared. A
/// verdict stands until the store of either of the two is replaced.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "cluster/hello.h"

namespace kesh
{

enum class agreement_kind : uint8_t { not_compared, agrees, diverged };

struct agreement_verdict {
  agreement_kind kind = agreement_kind::not_compared;
  uint64_t n = 0;  ///< agrees: the greatest n compared; diverged: the least n at which it was seen

  bool operator==(const agreement_verdict &) const = default;
};

/// A quorum of all nodes has the same H(n), and this node another one.
struct outvoted {
  uint64_t n = 0;
  chain_hash hash{};
  uint32_t nodes = 0;  ///< bit node - 1

  bool operator==(const outvoted &) const = default;
};

class agreement
{
public:
  /// This node's own H(n), for n below its own; nothing if it is not kept.
  using hash_lookup = std::function<std::optional<chain_hash>(const told_position &own, uint64_t n)>;

  agreement(uint32_t node_count, hash_lookup own_hash) : node_count_(node_count), own_hash_(std::move(own_hash)) {}

  /// Where this node is now.
  void own(const told_position &now);
  /// What another node says; nodes above the count are ignored.
  void heard(uint32_t node, const told_position &said);

  agreement_verdict of(uint32_t node) const;
  /// Set: this node must not lead. A difference alone bars nobody, since it does not tell who is wrong, and the cluster
  /// has to go on.
  const std::optional<outvoted> &barred() const { return barred_; }

private:
  struct statement {
    uint64_t n = 0;
    chain_hash hash{};
    bool operator==(const statement &) const = default;
  };
  struct peer {
    std::optional<told_position> said;
    std::optional<statement> ahead;  // the first one that this node was behind
    agreement_verdict verdict;
  };

  static std::vector<statement> statements_of(const peer &from);
  std::optional<chain_hash> own_hash_at(uint64_t n) const;
  void compare(peer &with);
  void look_for_quorum();

  uint32_t node_count_;
  hash_lookup own_hash_;
  std::optional<told_position> own_;
  std::array<peer, HELLO_NODES_MAX> peers_;
  std::optional<outvoted> barred_;
};

}  // namespace kesh
