#include "common/id_batch.h"

bool id_batch_valid(const id_batch &batch)
{
  const uint32_t count = id_batch_count(batch);
  if (count > ID_BATCH_MAX) {
    return false;
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (!id_entry_valid(id_batch_entry(batch, i))) {
      return false;
    }
  }
  return true;
}

void id_batch_add(id_batch *batch, uint32_t msg_id, uint8_t sender)
{
  if (batch == nullptr) {
    return;
  }
  const uint32_t count = id_batch_count(*batch);
  if (count >= ID_BATCH_MAX) {
    return;
  }
  id_entry_put(batch->bytes + 4 + count * ID_ENTRY_SIZE, {.sender = sender, .msg_id = msg_id});
  put_le32(batch->bytes, count + 1);
}

id_batch id_batch_of(id_entry entry)
{
  id_batch batch;
  id_batch_add(&batch, entry.msg_id, entry.sender);
  return batch;
}

int id_batch_find(const id_batch *batch, uint32_t msg_id, uint8_t sender)
{
  if (batch == nullptr) {
    return -1;
  }
  const id_entry wanted = {.sender = sender, .msg_id = msg_id};
  for (uint32_t i = 0; i < id_batch_count(*batch); ++i) {
    if (id_batch_entry(*batch, i) == wanted) {
      return static_cast<int>(i);
    }
  }
  return -1;
}
