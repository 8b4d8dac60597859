/// Messages of channel 4, behind the envelope. Little-endian. The key of a queued message is its type.
///
/// DECIDE, 1268 bytes
///   offset  width  field
///   0       4      type      0
///   4       4      batch_id  decision number
///   8       5      reserved, 0
///   13      1254   batch     the log
///   1267    1      padding, 0
/// FORWARD, 12 bytes
///   0       4      type      1
///   4       5      entry     the forwarding node and its waiting identifier
///   9       3      padding, 0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "common/id_batch.h"

inline constexpr uint32_t PAXOS_DECIDE = 0;
inline constexpr uint32_t PAXOS_FORWARD = 1;
inline constexpr uint32_t DECIDE_MESSAGE_SIZE = 1268;
inline constexpr uint32_t FORWARD_MESSAGE_SIZE = 12;

struct decide_message {
  uint32_t batch_id;
  id_batch batch;
};

/// Return nothing if the payload is too short, if a log is empty, too long or has an invalid entry, or if a FORWARD
/// names a node outside the cluster. A FORWARD of identifier 0 is parsed; its receiver refuses it as already decided.
std::optional<decide_message> decide_parse(std::span<const uint8_t> payload);
std::optional<id_entry> forward_parse(std::span<const uint8_t> payload);

/// Return the envelope of a new message, or null if memory runs out.
uint8_t *decide_message_new(uint32_t batch_id, const id_batch &batch);
uint8_t *forward_message_new(id_entry waiting);
