/// The three records that let a node resume after a restart, under /flashdisk/cons. A failure to load or save one
/// isolates the node.
///
///   file           size  content (little-endian)
///   msg_id         4     last message identifier handed out
///   paxos_decide   1258  number of the last decision (4), its log (1254)
///   paxos_deliver  5     last message delivered here
#pragma once

#include <atomic>
#include <cstdint>

#include "ordered_broadcast/paxos_state.h"

/// The next message identifier of this node, durable before it is returned; 0 on failure. `reset` begins again at 1.
/// `taken`, if given, is set before another caller can get a higher one. Any thread.
uint32_t msg_id_next(bool reset, std::atomic<uint32_t> *taken = nullptr);

/// Identifiers of ours that stand in a log are never handed out again, whatever the file says.
void msg_id_raise_floor(const id_batch &batch);

/// Return 0, or -1 after isolating the node (state as before a load, already changed after a save). The load tells the
/// registers which decisions are behind us.
int paxos_decide_load();
int paxos_decide_save() CONS_REQUIRES(paxos.propose_lock);
int paxos_deliver_load();
int paxos_deliver_save() CONS_REQUIRES(paxos.deliver_lock);
