/// Reads and writes of a register by quorum, and the receive hook that answers and counts.
///
/// An acceptor promises a round to a READ only if all that it promised and accepted is lower. It accepts a WRITE only
/// if nothing that it promised or accepted is higher. It saves before it answers. A requester counts each node once and
/// waits without a limit, until a quorum, a refusal or a cancel.
#pragma once

#include <cstdint>

#include "common/cons_value.h"

enum rb_reg_result : int {
  RB_REG_COMMITTED = 0,  ///< a quorum acknowledged and no node refused
  RB_REG_ABORTED = 1,    ///< a node refused: it has promised or accepted a higher round
  RB_REG_CANCELLED = 2,
  RB_REG_ERROR = 3  ///< no such register, no memory, or this node's own promise could not be saved
};

/// Blocks. On RB_REG_COMMITTED `output` is the value with the highest write round that any READ of this register has
/// returned, or empty if there was none. Do not use it otherwise. One READ or WRITE per register at a time.
int rb_reg_read(uint32_t id, uint32_t round, cons_value &output);

/// Blocks. Writes in the round of a committed READ. Sends nothing unless this node's own durable promise covers the
/// round, so that no later proposal of this node, even after a crash, writes another value in that round.
int rb_reg_write(uint32_t id, uint32_t round, const cons_value &value);

/// Ends the running READ or WRITE, or else the next one. Any thread, with no register locked.
void rb_reg_cancel(uint32_t id);

/// Forgets a cancel that found no operation.
void rb_reg_clear_cancel(uint32_t id);

/// The lowest of the rounds first, first + step, and so on that is above every round that this node's acceptor has
/// promised or accepted. 0 if there is none; `first` if there is no such register.
uint32_t rb_reg_first_round(uint32_t id, uint32_t first, uint32_t step);

/// Receive hook of channel 3.
void rb_reg_recv(void *msg);
