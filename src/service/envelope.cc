#include "service/envelope.h"

#include <cstring>

#include "common/le_bytes.h"
#include "service/service_state.h"
#include "vx_host.h"

uint8_t *cons_msg_new(const uint8_t *payload, uint32_t length)
{
  if (length > UINT32_MAX - ENVELOPE_SIZE) {
    return nullptr;
  }
  void *msg = vx_msg_allocate(length + ENVELOPE_SIZE);
  if (msg == nullptr) {
    return nullptr;
  }
  uint8_t *envelope = static_cast<uint8_t *>(msg) + MSG_WORD_SIZE;
  put_le64(envelope, cons_service.cluster_id);
  put_le32(envelope + 8, vx_firmware_dova_build_nr);
  const uint32_t node_addr = cons_service.node_addr;
  std::memcpy(envelope + 12, &node_addr, sizeof node_addr);
  put_le32(envelope + 16, length);
  if (payload != nullptr) {
    std::memcpy(envelope + ENVELOPE_SIZE, payload, length);
  }
  return envelope;
}

void *cons_msg_send(uint8_t *envelope, uint32_t channel, uint32_t msg_key, uint32_t destination, int32_t repeat,
                    uint32_t interval)
{
  return vx_msg_enqueue(envelope - MSG_WORD_SIZE, channel, msg_key, destination, repeat, interval);
}

bool received_message::accepted() const
{
  return get_le64(envelope_) == cons_service.cluster_id && get_le32(envelope_ + 8) == vx_firmware_dova_build_nr;
}

uint32_t received_message::sender_addr() const
{
  uint32_t addr;
  std::memcpy(&addr, envelope_ + 12, sizeof addr);
  return addr;
}

std::span<const uint8_t> received_message::payload() const
{
  return {envelope_ + ENVELOPE_SIZE, get_le32(envelope_ + 16)};
}
