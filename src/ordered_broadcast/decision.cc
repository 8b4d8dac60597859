#include "ordered_broadcast/decision.h"

#include <atomic>

#include "common/monotonic_clock.h"
#include "ordered_broadcast/forward.h"
#include "ordered_broadcast/paxos_messages.h"
#include "ordered_broadcast/waiting_ids.h"
#include "round_based_registers/consensus.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "vx_host.h"

namespace
{

constinit std::atomic<uint32_t> messages_in_hand{0};
constinit std::atomic<uint64_t> decisions_adopted{0};
constinit std::atomic<int64_t> agreed_us[NODES_MAX];  // node - 1: its last DECIDE with our number, monotonic

// Waits until the proposer is idle if it may be deciding number b or one before it.
void paxos_cancel_proposal(uint32_t b) CONS_REQUIRES(paxos.propose_lock)
{
  if (b < paxos.proposal_batch_id) {
    return;
  }
  consensus_cancel(paxos.running_instance);
  paxos_wait_proposer_idle();
}

// Nothing if the decision is not above ours, or cannot be saved. If something was adopted the proposer stays held.
std::optional<installed_decision> adopt(const decide_message &message) CONS_REQUIRES(paxos.propose_lock)
{
  paxos_idle_request();
  paxos_cancel_proposal(message.batch_id);
  std::optional<installed_decision> adopted;
  // While we waited the proposer may have decided this number and more: a decision never goes back.
  if (!paxos.stopped && message.batch_id > paxos_log.number()) {
    adopted = paxos_log.install(message.batch_id, message.batch);
  }
  if (adopted) {
    ++decisions_adopted;
  } else {
    paxos_idle_release();
  }
  paxos.propose_cond.signal();
  return adopted;
}

// What waits, seen from the new log. Until this is done the proposer starts nothing.
void settle_waiting(const installed_decision &decision)
{
  cons_lock forward_lock(paxos.forward_lock);
  cons_lock propose_lock(paxos.propose_lock);
  paxos_waiting.adopted(decision.batch, decision.has_gap);
  paxos_idle_release();
}

// Adopts a newer decision, answers an older one. True if it is the one that we have.
bool recv_decide(const decide_message &message, uint32_t sender_addr)
{
  vx_log("CONS: PAXOS: DECIDE (sender=%u, batch_id=%u)\n", node_id_of_addr(sender_addr), message.batch_id);
  std::optional<installed_decision> adopted;
  {
    cons_lock lock(paxos.propose_lock);
    if (paxos.stopped) {
      return false;
    }
    if (message.batch_id < paxos_log.number()) {
      paxos_log.send_to(sender_addr);
      return false;
    }
    if (message.batch_id == paxos_log.number()) {
      return true;
    }
    adopted = adopt(message);
  }
  if (adopted) {
    settle_waiting(*adopted);
    paxos_hand_over(*adopted);
  }
  return false;
}

// Whatever is being handled, a decision may wait behind it.
class in_hand_mark
{
public:
  in_hand_mark() { ++messages_in_hand; }
  ~in_hand_mark() { --messages_in_hand; }
  in_hand_mark(const in_hand_mark &) = delete;
  in_hand_mark &operator=(const in_hand_mark &) = delete;
};

}  // namespace

void paxos_recv(void *msg)
{
  const hook_call call(paxos_gate);
  if (!call.entered()) {
    return;
  }
  const in_hand_mark mark;
  const int64_t received_us = monotonic_us();
  const received_message received(msg);
  const auto payload = received.payload();
  if (!received.accepted() || payload.size() < 4) {
    return;
  }
  const uint32_t type = get_le32(payload.data());
  if (type == PAXOS_DECIDE) {
    if (const auto message = decide_parse(payload)) {
      const uint32_t sender = node_id_of_addr(received.sender_addr());
      if (recv_decide(*message, received.sender_addr()) && is_member(sender)) {
        agreed_us[sender - 1] = received_us;
      }
    }
  } else if (type == PAXOS_FORWARD) {
    if (const auto entry = forward_parse(payload)) {
      paxos_recv_forward(*entry, received.sender_addr());
    }
  } else {
    vx_log("CONS: PAXOS: unknown message type %u\n", type);
  }
}

uint64_t paxos_decisions_received()
{
  return messages_in_hand != 0 ? 1 : 2 * decisions_adopted;
}

int64_t paxos_agreed_us(uint32_t node_id)
{
  return agreed_us[node_id - 1];
}
