/// Sends this node's last decision to nodes that need it to catch up or to judge a loss. There are three cases:
///
/// - A node knows no decision and reads register 1. Nodes that have retired this register do not answer the READ.
/// - A node asks for a payload that this node lacks. It may still follow an older log, whose payloads are gone. If it
///   does not, it must know this before it may give the payload up.
/// - A node answered a request of this node with MISSING, but did not say which decision it knows. It may know none.
#pragma once

#include <cstdint>

#include "ordered_broadcast/paxos_state.h"

/// Sends the decision, at most once a second per node. Messaging threads, no lock held.
void paxos_help_newcomer(uint32_t node_addr);

/// Note the nodes to tell. Never wait. A node that asks in vain again soon after it was told is told again at once.
void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node);
void paxos_note_uninformed(uint32_t nodes);  ///< bit n - 1 = node n

/// Whether a node must be told at once.
bool paxos_is_help_urgent();

/// Tells the noted nodes, except askers whose payload has arrived here meanwhile. Runs on the leader-watch-thread.
void paxos_help_askers() CONS_REQUIRES(paxos.propose_lock);
