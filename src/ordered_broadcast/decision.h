/// The receive hook of channel 4, and the adoption of decisions.
#pragma once

#include <cstdint>

#include "ordered_broadcast/decided_log.h"
#include "service/entry_gate.h"

inline constinit entry_gate paxos_gate{false};

/// Receive hook of channel 4. To adopt a decision it waits until the proposer is idle.
void paxos_recv(void *msg);
