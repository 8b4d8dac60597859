/// Callbacks of the payload layer: delivery of ordered payloads to the host, and the record of the last delivery.
///
///   /flashdisk/cons/paxos_deliver, 5 bytes: the last message delivered here, an id_entry; zero = none
#pragma once

#include <cstdint>

#include "payload_dissemination/payload_buf.h"

/// Return 0, or -1 after isolating the node. A load that fails changes nothing.
int paxos_deliver_load();
int paxos_deliver_reset();

/// Calls the hook of each record's type, then records the message as delivered and settles the calls that waited for
/// it. Deliver-thread, with the queue's lock held.
void paxos_deliver(uint32_t msg_id, uint8_t sender, const payload_buf *payload);

/// The message was skipped because its payload is lost. Deliver-thread, with the queue's lock held.
void paxos_skip_lost(uint32_t msg_id, uint8_t sender);

/// The decided log is handled: wakes a proposer that waits to begin a new one.
void paxos_log_handled();
