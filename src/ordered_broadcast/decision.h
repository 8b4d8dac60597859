/// Receipt of decisions and of forwarded identifiers on channel 4.
#pragma once

#include <cstdint>

#include "service/entry_gate.h"

inline constinit entry_gate paxos_gate{false};

/// Receive hook of channel 4. Blocks until the proposer is idle when it adopts a decision.
void paxos_recv(void *msg);
