#include "ordered_broadcast/decision.h"

#include "common/repetition_filter.h"
#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/durable_state.h"
#include "ordered_broadcast/paxos_messages.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_table.h"
#include "round_based_registers/consensus.h"
#include "round_based_registers/register_table.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constinit repetition_filter decides_heard;
constinit repetition_filter forwards_heard;

// What an adoption replaced, and what goes on to the payload layer.
struct adoption {
  uint32_t old_id = 0;
  id_batch old_batch;
  id_entry last_delivered;
};

id_entry first_entry(const id_batch &batch)
{
  return id_batch_count(batch) != 0 ? id_batch_entry(batch, 0) : id_entry{};
}

// Waits until the proposer is idle if it may be deciding number b or one before it.
void paxos_cancel_proposal(uint32_t b) CONS_REQUIRES(paxos.propose_lock)
{
  if (b < paxos.proposal_batch_id) {
    return;
  }
  consensus_cancel(paxos.running_instance);
  paxos_wait_proposer_idle();
}

// Saves and announces a decision that we lag behind. False if nothing was adopted. On true the proposer stays held.
bool adopt_decision(const decide_message &message, adoption &result) CONS_REQUIRES(paxos.propose_lock)
{
  paxos_idle_request();
  paxos_cancel_proposal(message.batch_id);
  // While we waited the proposer may have decided this number and more: a decision never goes back.
  if (paxos.stopped || message.batch_id <= paxos.batch_id) {
    paxos_idle_release();
    paxos.propose_cond.signal();
    return false;
  }
  result.old_id = paxos.batch_id;
  result.old_batch = paxos.decided_batch;
  paxos.decided_batch = message.batch;
  paxos.batch_id = message.batch_id;
  msg_id_raise_floor(message.batch);
  if (paxos_decide_save() != 0) {
    paxos_idle_release();
    return false;
  }
  rb_reg_delete_up_to(paxos.batch_id);
  if (paxos.is_leader != 0) {
    paxos.propose_cond.signal();
  }
  paxos_decide_bcast();
  cons_lock lock(paxos.deliver_lock);
  result.last_delivered = paxos.last_delivered;
  return true;
}

void give_up_own() CONS_REQUIRES(paxos.forward_lock, paxos.deliver_lock)
{
  uint32_t &pending_id = paxos.pending_id[paxos_own_index()];
  calls_give_up(pending_id);
  pending_id = 0;
  vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_FORWARD, 0);
}

// Every decision adds one entry: a log of c entries at number b names the decisions from b - c + 1 on. Of earlier ones
// that we have not seen, no log tells any more; what waits here may be among them, inside the snapshot.
bool has_missed_decisions(const adoption &old, const decide_message &message)
{
  return uint64_t{old.old_id} + id_batch_count(message.batch) < message.batch_id;
}

void forget_doubtful(const decide_message &message) CONS_REQUIRES(paxos.forward_lock, paxos.deliver_lock)
{
  const uint32_t self = paxos_own_index();
  for (uint32_t i = 0; i < NODES_MAX; ++i) {
    if (i != self) {
      paxos.pending_id[i] = 0;  // its owner forwards it again
    }
  }
  const uint32_t own = paxos.pending_id[self];
  if (own > paxos.done_id[self] && id_batch_find(&message.batch, own, static_cast<uint8_t>(self + 1)) < 0) {
    give_up_own();
  }
}

// The waiting identifiers, seen from the new log. Until this is done the proposer starts nothing.
void settle_waiting(const adoption &old, const decide_message &message)
{
  cons_lock forward_lock(paxos.forward_lock);
  {
    cons_lock propose_lock(paxos.propose_lock);
    paxos_raise_done_ids(message.batch);
    {
      cons_lock deliver_lock(paxos.deliver_lock);
      const uint32_t self = paxos_own_index();
      const bool is_switch = first_entry(old.old_batch) != first_entry(message.batch);
      if (is_switch) {
        calls_mark_swallowed(old.old_batch, message.batch);
      }
      if (is_switch && has_missed_decisions(old, message)) {
        forget_doubtful(message);
      }
      if (paxos.pending_id[self] != 0 && paxos.pending_id[self] < paxos.done_id[self]) {
        give_up_own();
      }
      paxos.deliver_cond.broadcast();
    }
    paxos.next_proposal = {};
    paxos_idle_release();
  }
  paxos.forward_free_cond.broadcast();
  paxos.launch_cond.signal();
}

// Adopts a newer decision, answers an older one. Returns whether it was adopted.
bool recv_decide(const decide_message &message, uint32_t sender_addr)
{
  const uint32_t sender = node_id_of_addr(sender_addr);
  vx_log("CONS: PAXOS: DECIDE (sender=%u, batch_id=%u)\n", sender, message.batch_id);
  if (is_member(sender) && decides_heard.is_new(sender, message.batch_id)) {
    paxos_data_heard(sender);
  }
  adoption old;
  {
    cons_lock lock(paxos.propose_lock);
    if (paxos.stopped) {
      return false;
    }
    if (message.batch_id < paxos.batch_id) {
      paxos_data_is_not_ahead(sender);
      paxos_decide_update(sender_addr);
      return false;
    }
    if (message.batch_id == paxos.batch_id) {
      if (first_entry(message.batch) == first_entry(paxos.decided_batch)) {
        paxos_data_is_not_ahead(sender);
      }
      return false;
    }
    if (!adopt_decision(message, old)) {
      return false;
    }
  }
  settle_waiting(old, message);
  paxos_data_pull(message.batch, old.last_delivered, message.batch_id);
  return true;
}

void recv_forward(id_entry entry, uint32_t sender_addr)
{
  const uint32_t sender = node_id_of_addr(sender_addr);
  cons_lock lock(paxos.forward_lock);
  const uint32_t index = entry.sender - 1u;
  if (paxos.pending_id[index] == 0 && entry.msg_id > paxos.done_id[index]) {
    vx_log("CONS: PAXOS: FORWARD (sender=%u)\n", sender);
    paxos.pending_id[index] = entry.msg_id;
  } else {
    vx_log("CONS: PAXOS: FORWARD dupe/busy (sender=%u)\n", sender);
  }
  paxos.launch_cond.signal();
}

// Behind any message that is being handled a decision may wait.
class message_in_hand
{
public:
  message_in_hand() { paxos_data_message_begins(); }
  ~message_in_hand() { paxos_data_message_ends(is_new_decision); }
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
      const uint32_t sender = node_id_of_addr(received.sender_addr());
      if (is_member(sender) && forwards_heard.is_new(sender, entry->msg_id)) {
        paxos_data_heard(sender);
      }
      if (paxos.is_leader != 0) {
        recv_forward(*entry, received.sender_addr());
      }
    }
  } else {
    vx_log("CONS: PAXOS: unknown message type %u\n", type);
  }
}
