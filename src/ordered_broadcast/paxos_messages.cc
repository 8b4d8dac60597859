#include "ordered_broadcast/paxos_messages.h"

#include <cstring>

#include "service/envelope.h"
#include "service/identity.h"
#include "vx_host.h"

namespace
{

constexpr size_t DECIDE_BATCH_OFFSET = 13;

uint8_t *decide_message_new() CONS_REQUIRES(paxos.propose_lock)
{
  uint8_t payload[DECIDE_MESSAGE_SIZE] = {};
  put_le32(payload, PAXOS_DECIDE);
  put_le32(payload + 4, paxos.batch_id);
  std::memcpy(payload + DECIDE_BATCH_OFFSET, paxos.decided_batch.bytes, ID_BATCH_SIZE);
  return cons_msg_new(payload, sizeof payload);
}

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
  if (!is_member(entry.sender) || entry.msg_id == 0) {
    return std::nullopt;
  }
  return entry;
}

void paxos_decide_bcast()
{
  vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_DECIDE, 0);
  paxos.is_decide_unsent = false;
  // Stopped: by an isolation, perhaps because this very decision could not be saved.
  if (paxos.is_leader == 0 || paxos.batch_id == 0 || paxos.stopped) {
    return;
  }
  paxos.is_decide_unsent = true;
  if (uint8_t *message = decide_message_new()) {
    vx_log("CONS: PAXOS: DECIDE broadcast (batch_id=%u)\n", paxos.batch_id);
    paxos.is_decide_unsent = cons_msg_send(message, PAXOS_CHANNEL, PAXOS_DECIDE, CONS_MCAST_ADDR, -1, 5) == nullptr;
  }
}

void paxos_decide_update(uint32_t node_addr)
{
  if (uint8_t *message = decide_message_new()) {
    vx_log("CONS: PAXOS: DECIDE(update) send (batch_id=%u, receiver=%u)\n", paxos.batch_id, node_id_of_addr(node_addr));
    cons_msg_send(message, PAXOS_CHANNEL, PAXOS_DECIDE, node_addr, 0, 0);
  }
}

bool paxos_forward_send(id_entry waiting)
{
  uint8_t payload[FORWARD_MESSAGE_SIZE] = {};
  put_le32(payload, PAXOS_FORWARD);
  id_entry_put(payload + 4, waiting);
  uint8_t *message = cons_msg_new(payload, sizeof payload);
  if (message == nullptr) {
    return false;
  }
  vx_log("CONS: PAXOS: FORWARD undelivered messages to leader\n");
  return cons_msg_send(message, PAXOS_CHANNEL, PAXOS_FORWARD, CONS_MCAST_ADDR, -1, 1) != nullptr;
}

void paxos_forward_withdraw()
{
  if (paxos.forward_active) {
    vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_FORWARD, 0);
  }
}
