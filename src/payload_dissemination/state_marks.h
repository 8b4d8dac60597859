/// What a snapshot says about the log that it begins, so that the decided identifiers stay known when a log is
/// replaced. It is a record of type 4 after those of the data types. No hook gets it.
///
///   offset  width  field (little-endian)
///   0       4      number    of the decision that begins the log
///   4       64     done_id   per node (id - 1): the highest identifier that was decided before
#pragma once

#include <array>
#include <cstdint>

#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

inline constexpr uint32_t STATE_MARKS_TYPE = 4;
inline constexpr uint32_t STATE_MARKS_SIZE = 4 + 4 * NODES_MAX;

struct state_marks {
  uint32_t number = 0;
  std::array<uint32_t, NODES_MAX> done_id = {};
};

void state_marks_put(uint8_t *to, const state_marks &marks);

/// Returns false, with `marks` unchanged, if the payload is no snapshot or has no such record.
bool state_marks_get(const payload_buf *payload, state_marks &marks);
