/// The identifiers of this node's messages. They ascend and are never used twice.
///
///   /flashdisk/cons/msg_id, 4 bytes: the last identifier handed out, little-endian
#pragma once

#include <atomic>
#include <cstdint>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"

/// The next message identifier of this node, durable before it is returned; 0 after isolating the node: the file fails,
/// or none is left. `reset` begins again at 1. `taken`, if given, is set before another caller can
/// get a higher one. Any thread.
uint32_t msg_id_next(bool reset, std::atomic<uint32_t> *taken = nullptr)
    CONS_EXCLUDES(paxos.forward_lock, paxos.propose_lock, paxos.deliver_lock);

/// Makes msg_id_next stay above this node's identifiers in the log, even if the file holds a lower one. Any thread, any
/// lock. Does not wait for a save.
void msg_id_raise_floor(const id_batch &batch);
