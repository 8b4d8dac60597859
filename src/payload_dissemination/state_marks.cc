#include "payload_dissemination/state_marks.h"

void state_marks_put(uint8_t *to, const state_marks &marks)
{
  put_le32(to, marks.number);
  for (uint32_t i = 0; i < NODES_MAX; ++i) {
    put_le32(to + 4 + 4 * i, marks.done_id[i]);
  }
}

bool state_marks_get(const payload_buf *payload, state_marks &marks)
{
  if (payload_full_state(payload) == 0) {
    return false;
  }
  const uint32_t size = payload_byte_count(payload);
  const uint8_t *records = payload + PAYLOAD_HEADER_SIZE;
  for (uint32_t offset = 0; size - offset >= RECORD_HEADER_SIZE;) {
    const uint8_t *record = records + offset;
    const uint32_t length = get_le32(record + 4);
    if (length > size - offset - RECORD_HEADER_SIZE) {
      return false;
    }
    if (get_le32(record) == STATE_MARKS_TYPE && length == STATE_MARKS_SIZE) {
      const uint8_t *from = record + RECORD_HEADER_SIZE;
      marks.number = get_le32(from);
      for (uint32_t i = 0; i < NODES_MAX; ++i) {
        marks.done_id[i] = get_le32(from + 4 + 4 * i);
      }
      return true;
    }
    offset += length + RECORD_HEADER_SIZE;
  }
  return false;
}
