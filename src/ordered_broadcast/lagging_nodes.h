/// Other nodes that do not know our decision and cannot say so.
#pragma once

#include <cstdint>

/// A node asks for register 1 although we hold a decision: it knows none, and whoever retired that register stays
/// silent. Sends it ours, at most once a second per node. Messaging threads, no lock held.
void paxos_help_newcomer(uint32_t node_addr);

/// A node asks for a payload that we have not: it may be behind by a log, whose payloads are gone, and if it is not it
/// must know so before it may skip the payload. Never waits.
void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node);

/// Sends our decision to those noted, unless the payload has come meanwhile. No lock held.
void paxos_help_askers();
