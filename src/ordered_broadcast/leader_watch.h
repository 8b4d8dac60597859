/// The leader-watch-thread: once a second it tells keepalived that this process lives, whatever the other threads are
/// busy with, follows the node state file that keepalived writes, and sends decisions that are still to be sent.
#pragma once

void *paxos_leader_watch_thread(void *);
