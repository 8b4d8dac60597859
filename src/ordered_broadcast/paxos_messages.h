/// Messages of channel 4, behind the envelope. Little-endian. The key of a queued message is its type.
///
/// DECIDE, 1268 bytes
///   offset  width  field
///   0       4      type      0
///   4       4      batch_id  number of the decision
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

/// Nothing if the payload is too short or names what cannot be: a log that is empty, too long, or holds invalid
/// entries; a node outside the cluster. A FORWARD of identifier 0 is parsed: its receiver refuses it as an old one.
std::optional<decide_message> decide_parse(std::span<const uint8_t> payload);
std::optional<id_entry> forward_parse(std::span<const uint8_t> payload);

/// The messages, to be sent; null without memory.
uint8_t *decide_message_new(uint32_t batch_id, const id_batch &batch);
uint8_t *forward_message_new(id_entry waiting);
