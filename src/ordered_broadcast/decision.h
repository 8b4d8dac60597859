/// Receipt of decisions and of forwarded identifiers on channel 4.
#pragma once

#include <cstdint>

#include "service/entry_gate.h"

inline constinit entry_gate paxos_gate{false};

/// Receive hook of channel 4. Blocks until the proposer is idle when it adopts a decision.
void paxos_recv(void *msg);

/// Odd while a message of channel 4 is being handled, behind which a DECIDE may wait; another even number after each
/// adoption. Any thread, any lock.
uint64_t paxos_decisions_received();

/// When the last DECIDE of the node came that had the number that we had, monotonic; 0: never. Any thread, any lock.
int64_t paxos_agreed_us(uint32_t node_id);

/// A node asks for register 1 although we hold a decision: it knows none, and whoever retired that register stays
/// silent. Sends it ours, at most once a second per node. Messaging threads, no lock held.
void paxos_help_newcomer(uint32_t node_addr);

/// A node asks for a payload that we have not: it may be behind by a log, whose payloads are gone, and if it is not it
/// must know so before it may skip the payload. Never waits.
void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node);

/// Sends our decision to those noted, unless the payload has come meanwhile. No lock held.
void paxos_help_askers();
