/// How a payload enters the ordered broadcast.
#pragma once

#include <cstdint>

/// Back end of vx_cons_distribute: stores the payload, makes a quorum hold it, queues its identifier for ordering and
/// blocks until it is delivered here. Host threads, several at once, with no lock held. Returns 0, or -1 as vx_cons.h
/// says. With no bytes it returns at once: 0, or -1 if the protocol is stopped.
int paxos_distribute(const uint8_t *bytes, uint32_t length, uint32_t type);
