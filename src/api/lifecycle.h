/// The life of the library: down, ready, active. The exported functions of the same names call these once they hold
/// the lifecycle lock.
#pragma once

#include <cstdint>

#include "service/entry_gate.h"
#include "service/isolation.h"

/// Holds the threads that submit or send. Until they have left, the tables stay and nothing is unregistered.
inline constinit entry_gate caller_gate{true};

/// Whether the library is initialised and not stopped. Any thread, any lock.
bool lifecycle_is_active();

/// Returns 0, also if the library is already initialised; on failure -1, with everything torn down again.
int lifecycle_init() CONS_REQUIRES(lifecycle_lock);

/// Returns 0, also if the service is already active; -1 if it is not initialised or cannot be started. It is stopped
/// then.
int lifecycle_start() CONS_REQUIRES(lifecycle_lock);

/// Harmless in every state. cleanup stops first.
void lifecycle_stop() CONS_REQUIRES(lifecycle_lock);
void lifecycle_cleanup() CONS_REQUIRES(lifecycle_lock);

/// Writes the cluster's keys and resets the protocol. Returns 0; -1 if the service is active or not initialised, or if
/// a step failed.
int lifecycle_configure(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                        uint32_t node_count, const char *node_id, const char *mtime) CONS_REQUIRES(lifecycle_lock);
