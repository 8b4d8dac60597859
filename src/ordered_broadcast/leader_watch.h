/// The leader-watch-thread: follows the node state file that keepalived writes, and tells keepalived once a second that
/// this process lives.
#pragma once

void *paxos_leader_watch_thread(void *);

/// Ends the pause between two passes.
void paxos_leader_watch_wake();
