/// The cluster's keys in the host's configuration store.
#pragma once

#include <cstdint>

/// Reads the keys and sets node_count, cluster_id, quorum, node_id, node_addr and durable_payloads (off if that key is
/// absent or unreadable) of the service, in this order. Stops at the first key that is not usable, with a line in the
/// log; what was read before stays set. Returns 0 or -1.
int cluster_config_read();

/// Writes all keys, and removes the MAC keys from the new node count up to that of the last start. Does not save the
/// store. Returns 0, or -1 at the first key that cannot be written.
int cluster_config_write(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                         uint32_t node_count, const char *node_id, const char *mtime);

bool cluster_config_supported();
bool cluster_config_enabled();
