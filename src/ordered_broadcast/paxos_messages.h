/// Messages of channel 4, behind the envelope. Little-endian. The key of a queued message is its type.
///
/// DECIDE, 1268 bytes
///   offset  width  field
///   0       4      type      0
///   4       4      batch_id  number of the decision
///   8       5      reserved, 0
///   13      1254   batch     the log
///   1267    1      padding, 0
/// FORWARD, 12 bytes
///   0       4      type      1
///   4       5      entry     the forwarding node and its waiting identifier
///   9       3      padding, 0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"

inline constexpr uint32_t PAXOS_DECIDE = 0;
inline constexpr uint32_t PAXOS_FORWARD = 1;
inline constexpr uint32_t DECIDE_MESSAGE_SIZE = 1268;
inline constexpr uint32_t FORWARD_MESSAGE_SIZE = 12;

struct decide_message {
  uint32_t batch_id;
  id_batch batch;
};

/// Nothing if the payload is too short or names what cannot be: a log that is empty, too long, or holds invalid
/// entries; a node outside the cluster; identifier 0.
std::optional<decide_message> decide_parse(std::span<const uint8_t> payload);
std::optional<id_entry> forward_parse(std::span<const uint8_t> payload);

/// Replaces this node's queued DECIDE by one of the last decision, repeated to all nodes; a follower, a node that is
/// stopped or one without a decision only withdraws. What could not be queued is noted in is_decide_unsent.
void paxos_decide_bcast() CONS_REQUIRES(paxos.propose_lock);

/// Sends the last decision once to one node.
void paxos_decide_update(uint32_t node_addr) CONS_REQUIRES(paxos.propose_lock);

/// Queues a FORWARD, repeated to all nodes. False if that was not possible.
bool paxos_forward_send(id_entry waiting);

/// Withdraws this node's FORWARD if there is one.
void paxos_forward_withdraw() CONS_REQUIRES(paxos.deliver_lock);
