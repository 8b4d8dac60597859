#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/data_state.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RECOUNT_PERIOD_US = 1000000;

bool is_held_by_quorum(const xfer_state &offer) CONS_REQUIRES(offer.lock)
{
  uint32_t count = 0;
  for (uint32_t i = 0; i < cons_service.node_count && i < NODES_MAX; ++i) {
    count += offer.node_state[i] == XFER_NODE_HAS_IT ? 1 : 0;
  }
  return count >= cons_service.quorum;
}

}  // namespace

void paxos_data_offer(uint32_t id, const std::atomic<bool> &ended)
{
  xfer_state &offer = paxos_data.offer_xfer;
  const auto sender = static_cast<uint8_t>(cons_service.node_id);
  // After a quick stop and start `stopped` is clear again, and the record may belong to another call.
  const auto goes_on = [&] { return !paxos_data.stopped && !ended; };

  cons_lock lock(offer.lock);
  while (goes_on() && offer.id != 0) {
    offer.changed_cond.wait_for_us(offer.lock, RECOUNT_PERIOD_US);
  }
  if (!goes_on()) {
    return;
  }
  offer.id = id;
  offer.sender = sender;
  offer.node_state[sender - 1] = XFER_NODE_HAS_IT;
  bool is_offered = paxos_data_bcast_offer(id, sender);
  while (goes_on() && !is_held_by_quorum(offer)) {
    offer.changed_cond.wait_for_us(offer.lock, RECOUNT_PERIOD_US);
    if (!is_offered && goes_on()) {
      is_offered = paxos_data_bcast_offer(id, sender);
    }
  }
  if (xfer_is_for(offer, id, sender)) {
    // With the lock held: behind it, the dequeue could take the next call's OFFER away.
    xfer_reset(offer);
    offer.changed_cond.broadcast();
    vx_msg_dequeue(nullptr, PAXOS_DATA_CHANNEL, PAXOS_DATA_OFFER, 0);
  }
}
