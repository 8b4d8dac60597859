/// The leader-watch-thread: follows the node state file that keepalived writes, and tells keepalived once a second that
/// this process lives.
#pragma once

void *paxos_leader_watch_thread(void *);

/// Ends the pause between two passes on stop, and interrupts it to give urgent help. Any thread, any lock but leaves.
void paxos_leader_watch_wake();
