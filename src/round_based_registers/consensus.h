/// Decides one value for one decision number. Reads the register of that number, then writes in the same round the
/// value read back, or this node's proposal if there was none. Used by the propose-thread; any thread may cancel.
#pragma once

#include <cstdint>

#include "common/cons_value.h"
#include "round_based_registers/register_protocol.h"

struct consensus {
  cons_value value;  ///< read back, or else this node's proposal; empty at creation
  uint32_t id = 0;   ///< register id, equal to the decision number
};

/// Returns null if the register cannot be created or memory runs out. Forgets a cancel left over from an earlier
/// proposal.
consensus *consensus_create(uint32_t id);
void consensus_free(consensus *instance);

/// The first round of this node for a new proposal, above every round that its acceptor has seen. 0 if none is left.
uint32_t consensus_first_round(const consensus &instance);

/// Blocks. On RB_REG_COMMITTED `decision` becomes the decided value, else a copy of the proposal (empty if memory runs
/// out). Each call for an instance must pass a higher round.
int consensus_propose(consensus &instance, uint32_t round, const cons_value &proposal, cons_value &decision);

/// Ends the running proposal, or else the next one. Any thread.
void consensus_cancel(const consensus *instance);
