/// Start, stop and reset of the ordered broadcast and of the layers below. All but paxos_halt run with the lifecycle
/// lock held and no other lock.
#pragma once

#include "service/isolation.h"

/// Creates the layers' tables. Returns 0, also if they exist already; -1 if a table cannot be created.
int cons_layers_init() CONS_REQUIRES(lifecycle_lock);
void cons_layers_cleanup() CONS_REQUIRES(lifecycle_lock);

/// Loads the durable state, starts the threads, resumes delivery and opens channel 4. Waits for no delivery. Returns 0,
/// also if the protocol runs already; on failure -1, with everything stopped.
int paxos_start() CONS_REQUIRES(lifecycle_lock);

/// Sets the stop flags of the protocol and of the payload layer: nothing more is decided, delivered, sent or accepted.
/// paxos_stop does the rest. Before that, the leader-watch-thread wakes all waiters within a second. Any thread, any
/// lock.
void paxos_halt();

/// Ends every thread, wait and repeated message; needs no network. Idempotent.
void paxos_stop() CONS_REQUIRES(lifecycle_lock);

/// Back to the state of a new cluster, in memory and on disk. Returns 0; -1 if the layers are not up, the protocol runs
/// or a step failed. The other steps are done all the same, unless the last decision cannot be made unreadable.
int paxos_reset() CONS_REQUIRES(lifecycle_lock);
