#include "ordered_broadcast/decision.h"

#include "common/monotonic_clock.h"
#include "common/repetition_filter.h"
#include "ordered_broadcast/forward.h"
#include "ordered_broadcast/paxos_messages.h"
#include "ordered_broadcast/waiting_ids.h"
#include "payload_dissemination/loss_watch.h"
#include "round_based_registers/consensus.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "vx_host.h"

namespace
{

constinit repetition_filter decides_heard;

// Cancels the proposal and waits until the proposer is idle, unless it proposes a number above b.
void paxos_cancel_proposal(uint32_t b) CONS_REQUIRES(paxos.propose_lock)
{
  if (b < paxos.proposal_batch_id) {
    return;
  }
  consensus_cancel(paxos.running_instance);
  paxos_wait_proposer_idle();
}

// Returns nothing if the decision is not above the last one, or cannot be saved. After an adoption the proposer stays
// idle until paxos_idle_release.
std::optional<installed_decision> adopt(const decide_message &message) CONS_REQUIRES(paxos.propose_lock)
{
  paxos_idle_request();
  paxos_cancel_proposal(message.batch_id);
  std::optional<installed_decision> adopted;
  // During the wait the proposer may have decided this number or higher ones. The last decision never goes back.
  if (!paxos.stopped && message.batch_id > paxos_log.number()) {
    adopted = paxos_log.install(message.batch_id, message.batch);
  }
  if (!adopted) {
    paxos_idle_release();
  }
  paxos.propose_cond.signal();
  return adopted;
}

// Settles the waiting identifiers by the new log. Until this is done the proposer starts nothing.
void settle_waiting(const installed_decision &decision)
{
  cons_lock forward_lock(paxos.forward_lock);
  cons_lock propose_lock(paxos.propose_lock);
  paxos_waiting.adopted(decision.batch, decision.has_gap);
  paxos_idle_release();
}

// Adopts a newer decision and answers an older one. Returns whether it was adopted.
bool recv_decide(const decide_message &message, uint32_t sender_addr)
{
  const uint32_t sender = node_id_of_addr(sender_addr);
  vx_log("CONS: PAXOS: DECIDE (sender=%u, batch_id=%u)\n", sender, message.batch_id);
  if (is_member(sender) && decides_heard.is_new(sender, message.batch_id)) {
    paxos_data_losses->heard(sender);
  }
  std::optional<installed_decision> adopted;
  {
    cons_lock lock(paxos.propose_lock);
    if (paxos.stopped) {
      return false;
    }
    if (message.batch_id < paxos_log.number()) {
      paxos_data_losses->is_not_ahead(sender);
      paxos_log.send_to(sender_addr);
      return false;
    }
    if (message.batch_id == paxos_log.number()) {
      if (id_batch_first(message.batch) == id_batch_first(paxos_log.batch())) {
        paxos_data_losses->is_not_ahead(sender);
      }
      return false;
    }
    adopted = adopt(message);
  }
  if (adopted) {
    settle_waiting(*adopted);
    paxos_hand_over(*adopted);
  }
  return adopted.has_value();
}

// While a message is being handled, a DECIDE may wait behind it. The judgement of losses must know.
class message_in_hand
{
public:
  message_in_hand() { paxos_data_losses->message_begins(); }
  ~message_in_hand()
  {
    if (is_new_decision) {
      paxos_data_losses->decided(monotonic_us());
    }
    paxos_data_losses->message_ends();
  }
  message_in_hand(const message_in_hand &) = delete;
  message_in_hand &operator=(const message_in_hand &) = delete;
  bool is_new_decision = false;
};

}  // namespace

void paxos_recv(void *msg)
{
  const hook_call call(paxos_gate);
  if (!call.entered()) {
    return;
  }
  message_in_hand in_hand;
  const received_message received(msg);
  const auto payload = received.payload();
  if (!received.accepted() || payload.size() < 4) {
    return;
  }
  const uint32_t type = get_le32(payload.data());
  if (type == PAXOS_DECIDE) {
    if (const auto message = decide_parse(payload)) {
      in_hand.is_new_decision = recv_decide(*message, received.sender_addr());
    }
  } else if (type == PAXOS_FORWARD) {
    if (const auto entry = forward_parse(payload)) {
      paxos_recv_forward(*entry, received.sender_addr());
    }
  } else {
    vx_log("CONS: PAXOS: unknown message type %u\n", type);
  }
}
