/// Forwarding: the launch-thread hands waiting identifiers to the proposer on the leader and forwards this node's own
/// on a follower; a FORWARD that arrives waits on the leader.
#pragma once

#include "common/id_batch.h"

/// The state that the log begins with is here, or lost: a leader may hand over. Pull record's lock held.
void paxos_look_for_base();

void *paxos_launch_thread(void *);

/// A FORWARD came. A follower drops it. Messaging threads, no lock held.
void paxos_recv_forward(id_entry entry, uint32_t sender_addr);
