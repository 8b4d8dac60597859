/// The leader-watch-thread. Once a second it tells keepalived that this process is alive, no matter what the other
/// threads do. It follows the node state file that keepalived writes, and sends decisions that other nodes still need.
#pragma once

void *paxos_leader_watch_thread(void *);
