#include "payload_dissemination/payload_buf.h"

#include <cstdlib>
#include <cstring>

payload_buf *payload_buf_new(uint32_t records, uint64_t record_bytes, uint32_t full_state)
{
  const uint64_t headers = PAYLOAD_HEADER_SIZE + uint64_t{RECORD_HEADER_SIZE} * records;
  if (headers > UINT32_MAX || record_bytes > UINT32_MAX - headers) {
    return nullptr;
  }
  auto *payload = static_cast<payload_buf *>(std::malloc(headers + record_bytes));
  if (payload != nullptr) {
    put_le32(payload, full_state);
    put_le32(payload + 4, 0);
  }
  return payload;
}

uint32_t payload_buf_append(payload_buf *payload, uint32_t offset, const uint8_t *bytes, uint32_t length, uint32_t type)
{
  uint8_t *record = payload + PAYLOAD_HEADER_SIZE + offset;
  put_le32(record, type);
  put_le32(record + 4, length);
  if (bytes != nullptr && length > 0) {
    std::memcpy(record + RECORD_HEADER_SIZE, bytes, length);
  } else {
    std::memset(record + RECORD_HEADER_SIZE, 0, length);
  }
  put_le32(payload + 4, payload_byte_count(payload) + length + RECORD_HEADER_SIZE);
  return offset + length + RECORD_HEADER_SIZE;
}
