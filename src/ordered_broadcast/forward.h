/// Forwarding. On the leader the launch-thread hands waiting identifiers to the proposer, those of received FORWARDs
/// included. On a follower it forwards this node's own identifier.
#pragma once

#include "common/id_batch.h"

/// The snapshot that begins the log is here, or lost: a leader may hand identifiers over. Call it with the pull
/// record's lock held.
void paxos_look_for_base();

void *paxos_launch_thread(void *);

/// Handles a FORWARD. A follower drops it. Messaging threads, no lock held.
void paxos_recv_forward(id_entry entry, uint32_t sender_addr);
