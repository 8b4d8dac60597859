/// Cluster messages: typed datagrams, multicast once, on channel 6. The channel is open from init to cleanup.
///
///   offset  width   field (little-endian)
///   0       4       type     also the message's key; only type 0 reaches a hook
///   4       4       length
///   8       length  data
#pragma once

#include <cstddef>
#include <cstdint>

#include "vx_cons.h"

inline constexpr size_t CLMSG_HDR_SIZE = 8;

void clmsg_init();

/// When this returns, no hook call runs and none will start. Never call it from a hook.
void clmsg_cleanup();

/// Replaces the hook of index 0 (null: none). When this returns, the old hook does not run. Other indexes are ignored.
void clmsg_register_hook(uint32_t index, vx_cons_clmsg_hook hook);

/// Sends one message to all nodes. Null data is sent as zeros. If memory runs out, nothing is sent.
void clmsg_bcast(uint32_t type, const uint8_t *data, uint32_t length);

/// Receive hook of channel 6.
void clmsg_recv(void *msg);
