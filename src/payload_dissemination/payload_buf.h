/// One payload in a single malloc allocation. The nodes transfer the same bytes.
///
///   offset  width   field (little-endian)
///   0       4       full_state   0 = distributed message, 1 = snapshot of the host's state
///   4       4       byte count of the records that follow
///   8       ..      records: type (4), length (4), `length` bytes
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/le_bytes.h"

inline constexpr uint32_t PAYLOAD_HEADER_SIZE = 8;
inline constexpr uint32_t RECORD_HEADER_SIZE = 8;

/// A payload's bytes. Release them with std::free.
using payload_buf = uint8_t;

inline uint32_t payload_full_state(const payload_buf *payload)
{
  return get_le32(payload);
}

inline uint32_t payload_byte_count(const payload_buf *payload)
{
  return get_le32(payload + 4);
}

inline uint32_t payload_size(const payload_buf *payload)
{
  return payload_byte_count(payload) + PAYLOAD_HEADER_SIZE;
}

/// Allocates a payload with room for `records` records of `record_bytes` bytes in all, and with no record in it yet.
/// Returns null if memory runs out or the payload's size would not fit 32 bits.
payload_buf *payload_buf_new(uint32_t records, uint64_t record_bytes, uint32_t full_state);

/// Writes a record at `offset` of the record area and returns the offset for the next one. The payload must have been
/// allocated large enough. If `bytes` is null, `length` zeros are written.
uint32_t payload_buf_append(payload_buf *payload, uint32_t offset, const uint8_t *bytes, uint32_t length,
                            uint32_t type);
