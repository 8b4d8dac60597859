#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/data_state.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RECOUNT_PERIOD_US = 1000000;

bool is_held_by_quorum(const offer_record &offer) CONS_REQUIRES(offer.lock)
{
  uint32_t count = 0;
  for (uint32_t i = 0; i < cons_service.node_count && i < NODES_MAX; ++i) {
    count += offer.node_state[i] == XFER_NODE_HAS_IT ? 1 : 0;
  }
  return count >= cons_service.quorum;
}

}  // namespace

void offer_record_complete(offer_record &record, id_entry entry, uint8_t from)
{
  cons_lock lock(record.lock);
  if (record.entry != entry) {
    return;
  }
  if (from != 0) {
    record.node_state[from - 1] = XFER_NODE_HAS_IT;
  }
  record.changed_cond.broadcast();
}

void offer_record_free(offer_record &record)
{
  record.entry = {};
  for (uint8_t &state : record.node_state) {
    state = 0;
  }
  record.changed_cond.broadcast();
}

void paxos_data_offer(uint32_t id, const std::atomic<bool> &ended)
{
  offer_record &offer = paxos_data.offer;
  const id_entry entry = own_entry(id);
  // `stopped` alone is not enough: after a quick stop and start it is false again, and the record may belong to another
  // call.
  const auto goes_on = [&] { return !paxos_data_stopped && !ended; };

  cons_lock lock(offer.lock);
  while (goes_on() && offer.entry.msg_id != 0) {
    offer.changed_cond.wait_for_us(offer.lock, RECOUNT_PERIOD_US);
  }
  if (!goes_on()) {
    return;
  }
  offer.entry = entry;
  offer.node_state[entry.sender - 1] = XFER_NODE_HAS_IT;
  bool is_offered = paxos_data_bcast_offer(id, entry.sender, OFFER_KEY) != nullptr;
  while (goes_on() && !is_held_by_quorum(offer)) {
    offer.changed_cond.wait_for_us(offer.lock, RECOUNT_PERIOD_US);
    if (!is_offered && goes_on()) {
      is_offered = paxos_data_bcast_offer(id, entry.sender, OFFER_KEY) != nullptr;
    }
  }
  if (offer.entry == entry) {
    // Keep the lock: without it the dequeue could remove the next call's OFFER.
    offer_record_free(offer);
    vx_msg_dequeue(nullptr, PAXOS_DATA_CHANNEL, OFFER_KEY, 0);
  }
}

bool paxos_data_offer_state(uint32_t id, bool (*goes_on)())
{
  offer_record &offer = paxos_data.state_offer;
  const id_entry entry = own_entry(id);
  cons_lock lock(offer.lock);
  offer.entry = entry;
  offer.node_state[entry.sender - 1] = XFER_NODE_HAS_IT;
  void *handle = nullptr;
  while (goes_on() && !is_held_by_quorum(offer)) {
    if (handle == nullptr) {
      handle = paxos_data_bcast_offer(id, entry.sender, STATE_OFFER_KEY);
    }
    offer.changed_cond.wait_for_us(offer.lock, RECOUNT_PERIOD_US);
  }
  const bool is_held = is_held_by_quorum(offer);
  offer_record_free(offer);
  if (handle != nullptr) {
    vx_msg_dequeue(handle, 0, 0, 0);
  }
  return is_held;
}

void paxos_data_wake_state_offer()
{
  paxos_data.state_offer.changed_cond.wake_all(paxos_data.state_offer.lock);
}
