/// Decides one value for one number: reads the register of that number, then writes in the same round the value
/// read back, or our own if there was none. Used by the proposer's thread; cancel may come from any other.
#pragma once

#include <cstdint>

#include "common/cons_value.h"
#include "round_based_registers/register_protocol.h"

struct consensus {
  cons_value value;  ///< read back, or else ours; empty at creation
  uint32_t id = 0;   ///< register id, the number of the decision
};

/// Null if the register cannot be created, or without memory. Forgets a cancel left over from an earlier proposal.
consensus *consensus_create(uint32_t id);
void consensus_free(consensus *instance);

/// The first round of this node for a new proposal: one that its acceptor has not seen. 0 if none is left.
uint32_t consensus_first_round(const consensus &instance);

/// Blocks. `decision` becomes the decided value on RB_REG_COMMITTED, else a copy of the proposal. Each call of an
/// instance takes a higher round.
int consensus_propose(consensus &instance, uint32_t round, const cons_value &proposal, cons_value &decision);

/// Ends the proposal that runs, or else the next.
void consensus_cancel(const consensus *instance);
