/// The receive hook of channel 4, and the adoption of decisions.
#pragma once

#include <cstdint>

#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/lagging_nodes.h"
#include "service/entry_gate.h"

inline constinit entry_gate paxos_gate{false};

/// Receive hook of channel 4. Blocks until the proposer is idle when it adopts a decision.
void paxos_recv(void *msg);

/// Odd while a message of channel 4 is being handled, behind which a DECIDE may wait; another even number after each
/// adoption. Any thread, any lock.
uint64_t paxos_decisions_received();

/// When the last DECIDE of the node came that had the number that we had, monotonic; 0: never. Any thread, any lock.
int64_t paxos_agreed_us(uint32_t node_id);
