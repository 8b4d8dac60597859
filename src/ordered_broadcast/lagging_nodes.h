/// Tells nodes our decision that need to hear it, so that they can catch up, or judge a loss.
///
/// - A node that knows no decision asks for register 1, and whoever retired that register stays silent.
/// - A node asks for a payload that this one lacks. It may be behind by a log, whose payloads are gone; if it is not,
/// it
///   must know so before it may give the payload up.
/// - A node answered our request with MISSING, but did not say which decision it knows: it may know none.
#pragma once

#include <cstdint>

#include "ordered_broadcast/paxos_state.h"

/// Sends ours, at most once a second per node. Messaging threads, no lock held.
void paxos_help_newcomer(uint32_t node_addr);

/// Note who is to be told. Never wait. A node that goes on asking in vain after it was told is told again at once.
void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node);
void paxos_note_uninformed(uint32_t nodes);  ///< bit n - 1: node n

/// Whether somebody waits to be told at once.
bool paxos_is_help_urgent();

/// Tells those noted, but for askers whose payload has come meanwhile. The leader-watch-thread.
void paxos_help_askers() CONS_REQUIRES(paxos.propose_lock);
