/// One payload, a single malloc allocation. Its bytes are also what the nodes transfer.
///
///   offset  width   field (little-endian)
///   0       4       full_state   0 = distributed message, 1 = snapshot of the hosts' state
///   4       4       byte count of the records that follow
///   8       ..      records: type (4), length (4), `length` bytes
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/le_bytes.h"

inline constexpr uint32_t PAYLOAD_HEADER_SIZE = 8;
inline constexpr uint32_t RECORD_HEADER_SIZE = 8;

/// A payload's bytes; released with std::free.
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

/// Room for `records` records of `record_bytes` bytes in all, none in it yet. Null without memory or if the payload's
/// size would not fit 32 bits.
payload_buf *payload_buf_new(uint32_t records, uint64_t record_bytes, uint32_t full_state);

/// Writes a record at `offset` of the record area and returns the offset for the next. The creator has sized the
/// payload. null bytes with a length are written as zeros.
uint32_t payload_buf_append(payload_buf *payload, uint32_t offset, const uint8_t *bytes, uint32_t length,
                            uint32_t type);
