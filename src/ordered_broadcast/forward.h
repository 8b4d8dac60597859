/// The launch-thread: hands waiting identifiers to the proposer on the leader, forwards the own one on a follower.
#pragma once

void *paxos_launch_thread(void *);
