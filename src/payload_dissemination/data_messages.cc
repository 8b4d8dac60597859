#include "payload_dissemination/data_messages.h"

#include <algorithm>
#include <cstring>

#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_stopped.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

uint8_t *paxos_data_msg_new(paxos_data_type type, uint32_t id, uint8_t sender, uint32_t body_length)
{
  uint8_t *message = cons_msg_new(nullptr, body_length);
  if (message == nullptr) {
    return nullptr;
  }
  uint8_t *body = cons_msg_payload(message);
  put_le16(body, type);
  body[2] = static_cast<uint8_t>(cons_service.node_id);
  body[3] = sender;
  put_le32(body + 4, id);
  return message;
}

bool send_once(uint8_t *message, paxos_data_type type)
{
  return cons_msg_send(message, PAXOS_DATA_CHANNEL, type, CONS_MCAST_ADDR, 0, 0) != nullptr;
}

}  // namespace

void *paxos_data_bcast_offer(uint32_t id, uint8_t sender, uint32_t key)
{
  uint8_t *message = paxos_data_msg_new(PAXOS_DATA_OFFER, id, sender, PAXOS_DATA_HDR_SIZE);
  if (message == nullptr) {
    return nullptr;
  }
  vx_log("CONS: PAXOS DATA: OFFER bcast (id=%u/%hhu)\n", id, sender);
  return cons_msg_send(message, PAXOS_DATA_CHANNEL, key, CONS_MCAST_ADDR, -1, 1);
}

bool paxos_data_bcast_req(uint32_t id, uint8_t sender, uint32_t offset, uint32_t length)
{
  uint8_t *message = paxos_data_msg_new(PAXOS_DATA_REQ, id, sender, REQ_SIZE);
  if (message == nullptr) {
    return false;
  }
  put_le32(cons_msg_payload(message) + 8, offset);
  put_le32(cons_msg_payload(message) + 12, length);
  vx_log("CONS: PAXOS DATA: REQ bcast (id=%u/%hhu, offset=%u, len=%u)\n", id, sender, offset, length);
  return send_once(message, PAXOS_DATA_REQ);
}

void paxos_data_send_data(uint32_t id, uint8_t sender, const payload_buf *payload, uint32_t offset, uint32_t length)
{
  const uint32_t size = payload_size(payload);
  const uint32_t start = std::min(offset, size);
  const uint32_t count = std::min(length, size - start);
  for (uint32_t pos = 0; pos < count && !paxos_data_stopped;) {
    const uint32_t n = std::min(count - pos, DATA_PIECE_SIZE);
    uint8_t *message = paxos_data_msg_new(PAXOS_DATA_DATA, id, sender, DATA_HEADER_SIZE + n);
    if (message == nullptr) {
      return;
    }
    uint8_t *body = cons_msg_payload(message);
    put_le32(body + 8, start + pos);
    put_le32(body + 12, size);
    put_le32(body + 16, n);
    if (cons_crypt(body + DATA_HEADER_SIZE, payload + start + pos, n, 1) != 0) {
      std::memset(body + DATA_HEADER_SIZE, 0, n);  // sent all the same, but without old memory or plain text
    }
    vx_log("CONS: PAXOS DATA: DATA bcast (id=%u/%hhu, o=%u, l=%u)\n", id, sender, start + pos, n);
    send_once(message, PAXOS_DATA_DATA);
    pos += n;
  }
}

void paxos_data_bcast_complete(uint32_t id, uint8_t sender)
{
  if (uint8_t *message = paxos_data_msg_new(PAXOS_DATA_COMPLETE, id, sender, PAXOS_DATA_HDR_SIZE)) {
    vx_log("CONS: PAXOS DATA: COMPLETE bcast (id=%u/%hhu)\n", id, sender);
    send_once(message, PAXOS_DATA_COMPLETE);
  }
}

void paxos_data_bcast_missing(uint32_t id, uint8_t sender)
{
  if (uint8_t *message = paxos_data_msg_new(PAXOS_DATA_MISSING, id, sender, PAXOS_DATA_HDR_SIZE)) {
    vx_log("CONS: PAXOS DATA: MISSING bcast (id=%u/%hhu)\n", id, sender);
    send_once(message, PAXOS_DATA_MISSING);
  }
}
