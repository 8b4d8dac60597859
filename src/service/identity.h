/// Node ids and the addresses under which the messaging service knows the nodes.
#pragma once

#include <cstdint>

#include "common/id_batch.h"

/// 127.1.0.node_id in network byte order.
uint32_t node_addr_of_id(uint32_t node_id);

/// The last octet of an address.
uint32_t node_id_of_addr(uint32_t node_addr);

/// The identifier of this node's message `msg_id`.
id_entry own_entry(uint32_t msg_id);

/// Whether the id is 1 to the number of nodes of this cluster.
bool is_member(uint32_t node_id);
