/// The way of a payload into the ordered broadcast.
#pragma once

#include <cstdint>

/// Back end of vx_cons_distribute: stores the payload, makes a quorum hold it, queues its identifier for ordering and
/// blocks until it is delivered here. Host threads, several at once, with no lock held.
/// Returns 0 (also at once for no bytes), or -1 as vx_cons.h says.
int paxos_distribute(const uint8_t *bytes, uint32_t length, uint32_t type);
