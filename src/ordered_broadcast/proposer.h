/// The propose-thread: turns the identifier that the launch-thread handed over into the next decision.
#pragma once

void *paxos_propose_thread(void *);
