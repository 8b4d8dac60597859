#include "ordered_broadcast/paxos_messages.h"

#include <cstring>

#include "service/envelope.h"
#include "service/identity.h"

namespace
{

constexpr size_t DECIDE_BATCH_OFFSET = 13;

}  // namespace

std::optional<decide_message> decide_parse(std::span<const uint8_t> payload)
{
  if (payload.size() < DECIDE_MESSAGE_SIZE) {
    return std::nullopt;
  }
  decide_message message;
  message.batch_id = get_le32(payload.data() + 4);
  std::memcpy(message.batch.bytes, payload.data() + DECIDE_BATCH_OFFSET, ID_BATCH_SIZE);
  if (!id_batch_valid(message.batch) || id_batch_count(message.batch) == 0) {
    return std::nullopt;
  }
  return message;
}

std::optional<id_entry> forward_parse(std::span<const uint8_t> payload)
{
  if (payload.size() < FORWARD_MESSAGE_SIZE) {
    return std::nullopt;
  }
  const id_entry entry = id_entry_get(payload.data() + 4);
  if (!is_member(entry.sender)) {
    return std::nullopt;
  }
  return entry;
}

uint8_t *decide_message_new(uint32_t batch_id, const id_batch &batch)
{
  uint8_t payload[DECIDE_MESSAGE_SIZE] = {};
  put_le32(payload, PAXOS_DECIDE);
  put_le32(payload + 4, batch_id);
  std::memcpy(payload + DECIDE_BATCH_OFFSET, batch.bytes, ID_BATCH_SIZE);
  return cons_msg_new(payload, sizeof payload);
}

uint8_t *forward_message_new(id_entry waiting)
{
  uint8_t payload[FORWARD_MESSAGE_SIZE] = {};
  put_le32(payload, PAXOS_FORWARD);
  id_entry_put(payload + 4, waiting);
  return cons_msg_new(payload, sizeof payload);
}
