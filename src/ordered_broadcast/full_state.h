/// The message that begins a new log: a snapshot of the host's state.
#pragma once

#include "ordered_broadcast/paxos_state.h"
#include "payload_dissemination/payload_buf.h"

/// Makes the payload: one record per data type, in order, with the state from the type's get_state hook, or empty.
/// With durable payloads a record of marks for decision `number` follows. Returns null if memory runs out. Runs the
/// hooks.
payload_buf *paxos_full_state(uint32_t number);

/// A new log that begins with a new message `state` of this node, stored in the payload table, followed by the entries
/// of the last log behind this node's last delivered one (none with durable payloads, or if the log were full at once).
/// False if the message could not be made. Runs the hooks: the caller knows that this node has handled its whole log,
/// if there is one, so that no deliver hook runs meanwhile.
bool paxos_begin_log(id_batch &batch, id_entry state) CONS_REQUIRES(paxos.propose_lock);
