#include "round_based_registers/register_messages.h"

#include <cstring>

#include "common/le_bytes.h"
#include "service/envelope.h"

namespace
{

// Offset of the value, or 0 for a type without one. The four bytes before it hold the value's length.
size_t value_offset(uint32_t type)
{
  return type == READ_ACK ? READ_ACK_HEADER_SIZE : type == WRITE_REQ ? WRITE_REQ_HEADER_SIZE : 0;
}

}  // namespace

std::optional<rb_reg_message> rb_reg_parse(std::span<const uint8_t> payload)
{
  if (payload.size() < RB_REG_HEADER_SIZE) {
    return std::nullopt;
  }
  rb_reg_message message;
  message.type = get_le32(payload.data());
  message.id = get_le32(payload.data() + 4);
  message.round = get_le32(payload.data() + 8);
  const size_t offset = value_offset(message.type);
  if (offset != 0) {
    if (payload.size() < offset) {
      return std::nullopt;
    }
    const uint32_t length = get_le32(payload.data() + offset - 4);
    if (payload.size() - offset < length) {
      return std::nullopt;
    }
    message.value = payload.subspan(offset, length);
  }
  if (message.type == READ_ACK) {
    message.write_round = get_le32(payload.data() + RB_REG_HEADER_SIZE);
  }
  return message;
}

uint8_t *rb_reg_message_new(const rb_reg_message &message)
{
  const size_t offset = value_offset(message.type);
  const size_t size = offset != 0 ? offset + message.value.size() : RB_REG_HEADER_SIZE;
  if (size > UINT32_MAX) {
    return nullptr;
  }
  uint8_t *envelope = cons_msg_new(nullptr, static_cast<uint32_t>(size));
  if (envelope == nullptr) {
    return nullptr;
  }
  uint8_t *payload = cons_msg_payload(envelope);
  put_le32(payload, message.type);
  put_le32(payload + 4, message.id);
  put_le32(payload + 8, message.round);
  if (message.type == READ_ACK) {
    put_le32(payload + RB_REG_HEADER_SIZE, message.write_round);
  }
  if (offset != 0) {
    put_le32(payload + offset - 4, static_cast<uint32_t>(message.value.size()));
    if (!message.value.empty()) {
      std::memcpy(payload + offset, message.value.data(), message.value.size());
    }
  }
  return envelope;
}
