/// What a node tells all others once a second on channel 7, whether or not its library runs: the messages of the
/// library are dropped in just those cases that people must hear of.
///
/// One JSON object, at most HELLO_MAX bytes. Fields that a node does not know are ignored, and none of these is ever
/// left out, so that builds can differ:
///
///     cluster            which cluster: text of at most 64 bytes, printable ASCII without quotes and backslashes
///     mac                of its node 1: "02:00:00:00:00:01"
///     generation         which life of it
///     build              build number
///     nodes              count of nodes
///     state_max          the key state.max, bytes: nodes that differ in it would make states that others refuse
///     node               number of this one, 1 to 16
///     session            drawn at random by each daemon, 32 bits
///     number             of this hello in its session, from 1
///     role               "stopped", "follower", "leader" or "isolated"
///     standing           "new", "joined", "member" or "reformed": newcomer.h
///     decision           the last one in the file paxos_decide, which was flushed before
///     top                greatest number of a decision that this node had to do with
///     store              number of its store, another one each time it was replaced
///     complete           false: its store waits for a state, and may lack what others have
///     n, hash            payloads applied, and H(n), 64 hexadecimal digits
///     checkpoint_hash    H(n rounded down to a multiple of 256); null: not kept
///     handled            the library's log is delivered to its end
///     could_lead         it would lead if keepalived chose it, and its disk has room; missing: no
///     ids                per node the highest message id of it that this node's records know, its own that it handed
///                        out; null: not looked up yet, or the records cannot be read;
///                        then its top is no word either
///     reason             why nothing is ordered here; empty: it is
///     heard              [[node, age in ms, session, greatest decision that it told in other sessions], ..]
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "items/chain_hash.h"

namespace kesh
{

inline constexpr size_t HELLO_MAX = 1420;  ///< as the largest piece of a payload, for one Ethernet frame
inline constexpr uint32_t HELLO_NODES_MAX = 16;
inline constexpr size_t CLUSTER_NAME_MAX = 64;

/// Nodes whose n differ compare their H here.
constexpr uint64_t checkpoint_of(uint64_t n)
{
  return n - n % 256;
}

enum class node_role : uint8_t { stopped, follower, leader, isolated };
const char *node_role_name(node_role role);

/// What a node is to the cluster; newcomer.h says how one becomes the other.
enum class standing : uint8_t { is_new, joined, member, reformed };
const char *standing_name(standing of);
std::optional<standing> standing_of(std::string_view name);

/// Of each node, by node - 1; 0: none is known.
using message_ids = std::array<uint32_t, HELLO_NODES_MAX>;

struct cluster_identity {
  std::string name;
  std::string first_mac;  ///< of node 1, lower case
  uint64_t generation = 0;

  bool operator==(const cluster_identity &) const = default;
};

struct told_position {
  uint64_t store = 0;
  bool complete = false;
  uint64_t n = 0;
  chain_hash hash{};
  std::optional<chain_hash> checkpoint_hash;

  bool operator==(const told_position &) const = default;
};

struct heard_line {
  uint32_t node = 0;
  uint32_t age_ms = 0;
  uint32_t session = 0;
  uint32_t before = 0;

  bool operator==(const heard_line &) const = default;
};

struct hello {
  cluster_identity cluster;
  uint32_t build = 0;
  uint32_t node_count = 0;
  uint64_t state_max = 0;
  uint32_t node = 0;
  uint32_t session = 0;
  uint64_t number = 0;
  node_role role = node_role::stopped;
  standing stands = standing::member;
  uint32_t decision = 0;
  uint32_t top = 0;
  told_position position;
  bool handled = false;
  bool could_lead = false;
  std::optional<message_ids> ids;
  std::string reason;
  std::vector<heard_line> heard;

  bool operator==(const hello &) const = default;
};

/// At most HELLO_MAX bytes if the cluster's name has at most CLUSTER_NAME_MAX letters as above; a long reason is cut.
std::string hello_encode(hello from);
/// Nothing if anything is missing, out of range or of a wrong kind.
std::optional<hello> hello_decode(std::string_view bytes);

}  // namespace kesh
