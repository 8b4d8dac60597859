#include "ordered_broadcast/decision.h"

#include <atomic>

#include "common/monotonic_clock.h"
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

constinit std::atomic<uint32_t> messages_in_hand{0};
constinit std::atomic<uint64_t> decisions_adopted{0};
constinit std::atomic<int64_t> agreed_us[NODES_MAX];  // node - 1: its last DECIDE with our number, monotonic

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
  ++decisions_adopted;
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

// Adopts a newer decision, answers an older one. True if it is the one that we have.
bool recv_decide(const decide_message &message, uint32_t sender_addr)
{
  vx_log("CONS: PAXOS: DECIDE (sender=%u, batch_id=%u)\n", node_id_of_addr(sender_addr), message.batch_id);
  adoption old;
  {
    cons_lock lock(paxos.propose_lock);
    if (paxos.stopped) {
      return false;
    }
    if (message.batch_id < paxos.batch_id) {
      paxos_decide_update(sender_addr);
      return false;
    }
    if (message.batch_id == paxos.batch_id) {
      return true;
    }
    if (!adopt_decision(message, old)) {
      return false;
    }
  }
  settle_waiting(old, message);
  paxos_data_pull(message.batch, old.last_delivered, message.batch_id);
  return false;
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

// Whatever is being handled, a decision may wait behind it.
class in_hand_mark
{
public:
  in_hand_mark() { ++messages_in_hand; }
  ~in_hand_mark() { --messages_in_hand; }
  in_hand_mark(const in_hand_mark &) = delete;
  in_hand_mark &operator=(const in_hand_mark &) = delete;
};

// What the other nodes asked for lately and did not get: (sender << 32) | id, 0 = nothing.
constinit std::atomic<uint64_t> asked_for[NODES_MAX];

bool is_lacking(uint64_t asked)
{
  return asked != 0 && paxos_data_has_entry(static_cast<uint32_t>(asked), static_cast<uint8_t>(asked >> 32)) == 0;
}

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
    const auto entry = forward_parse(payload);
    if (entry && paxos.is_leader != 0) {
      recv_forward(*entry, received.sender_addr());
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

void paxos_help_newcomer(uint32_t node_addr)
{
  constexpr int64_t PAUSE_US = 1000000;
  static int64_t next_help_us[NODES_MAX] = {};  // guarded by propose_lock
  const uint32_t node_id = node_id_of_addr(node_addr);
  const int64_t now_us = monotonic_us();
  cons_lock lock(paxos.propose_lock);
  if (paxos.stopped || paxos.batch_id == 0 || !is_member(node_id) || node_id == cons_service.node_id ||
      now_us < next_help_us[node_id - 1]) {
    return;
  }
  next_help_us[node_id - 1] = now_us + PAUSE_US;
  paxos_decide_update(node_addr);
}

void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node)
{
  if (is_member(asking_node) && asking_node != cons_service.node_id && !is_lacking(asked_for[asking_node - 1])) {
    asked_for[asking_node - 1] = uint64_t{sender} << 32 | msg_id;
  }
}

void paxos_help_askers()
{
  for (uint32_t node_id = 1; node_id <= NODES_MAX; ++node_id) {
    if (!is_lacking(asked_for[node_id - 1].exchange(0))) {
      continue;
    }
    cons_lock lock(paxos.propose_lock);
    if (!paxos.stopped && paxos.batch_id != 0) {
      paxos_decide_update(node_addr_of_id(node_id));
    }
  }
}
