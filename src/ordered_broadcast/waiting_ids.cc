#include "ordered_broadcast/waiting_ids.h"

#include <algorithm>

#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/paxos_messages.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

void waiting_ids::clear()
{
  for (uint32_t i = 0; i < NODES_MAX; ++i) {
    pending_id_[i] = 0;
    done_id_[i] = 0;
  }
  last_served_ = cons_service.node_count - 1;
  forward_active_ = false;
  next_proposal_ = {};
}

uint32_t waiting_ids::own() const
{
  return pending_id_[paxos_own_index()];
}

bool waiting_ids::is_decided(id_entry entry) const
{
  return entry.msg_id <= done_id_[entry.sender - 1];
}

void waiting_ids::enter(uint32_t own_id)
{
  pending_id_[paxos_own_index()] = own_id;
  paxos.launch_cond.signal();
}

bool waiting_ids::forwarded(id_entry entry)
{
  uint32_t &pending_id = pending_id_[entry.sender - 1];
  const bool is_taken = entry.sender != cons_service.node_id && pending_id == 0 && !is_decided(entry);
  if (is_taken) {
    pending_id = entry.msg_id;
  }
  paxos.launch_cond.signal();
  return is_taken;
}

bool waiting_ids::forward_own()
{
  withdraw_forward();
  uint8_t *message = forward_message_new(own_entry(own()));
  if (message == nullptr) {
    return false;
  }
  vx_log("CONS: PAXOS: FORWARD undelivered messages to leader\n");
  forward_active_ = cons_msg_send(message, PAXOS_CHANNEL, PAXOS_FORWARD, CONS_MCAST_ADDR, -1, 1) != nullptr;
  return forward_active_;
}

void waiting_ids::withdraw_forward()
{
  if (forward_active_) {
    vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_FORWARD, 0);
    forward_active_ = false;
  }
}

void waiting_ids::raise_done(id_entry entry)
{
  std::atomic<uint32_t> &done_id = done_id_[entry.sender - 1];
  done_id = std::max(done_id.load(), entry.msg_id);
}

std::array<uint32_t, NODES_MAX> waiting_ids::done_ids() const
{
  std::array<uint32_t, NODES_MAX> ids;
  std::copy(std::begin(done_id_), std::end(done_id_), ids.begin());
  return ids;
}

void waiting_ids::seen_decided_before(const state_marks &marks)
{
  for (uint32_t i = 0; i < NODES_MAX; ++i) {
    raise_done({.sender = static_cast<uint8_t>(i + 1), .msg_id = marks.done_id[i]});
  }
}

void waiting_ids::seen_decided(const id_batch &log)
{
  for (uint32_t i = 1; i < id_batch_count(log); ++i) {
    raise_done(id_batch_entry(log, i));
  }
}

void waiting_ids::retire_decided(bool is_leader)
{
  bool is_freed = false;
  for (uint32_t i = 0; i < cons_service.node_count; ++i) {
    const bool may_retire = is_leader || i != paxos_own_index();
    if (may_retire && pending_id_[i] != 0 && pending_id_[i] <= done_id_[i]) {
      pending_id_[i] = 0;
      is_freed = true;
    }
  }
  if (is_freed) {
    paxos.forward_free_cond.broadcast();
  }
}

void waiting_ids::hand_over()
{
  const uint32_t node_count = cons_service.node_count;
  for (uint32_t i = 0; i < node_count; ++i) {
    const uint32_t index = (last_served_ + 1 + i) % node_count;
    if (pending_id_[index] == 0) {
      continue;
    }
    cons_lock lock(paxos.propose_lock);
    if (next_proposal_.msg_id == 0) {
      next_proposal_ = {.sender = static_cast<uint8_t>(index + 1), .msg_id = pending_id_[index]};
      last_served_ = index;
      paxos.propose_cond.signal();
    }
    return;
  }
}

void waiting_ids::proposal_decided(id_entry decided)
{
  raise_done(decided);
  uint32_t &pending_id = pending_id_[decided.sender - 1];
  if (pending_id <= decided.msg_id) {
    pending_id = 0;
    paxos.forward_free_cond.broadcast();
  }
  take_back();
}

void waiting_ids::give_up_own()
{
  calls_give_up(own());
  settled();
}

void waiting_ids::adopted(const id_batch &log, bool has_gap)
{
  seen_decided(log);
  take_back();
  const uint32_t self = paxos_own_index();
  for (uint32_t i = 0; has_gap && i < NODES_MAX; ++i) {
    if (i != self) {
      pending_id_[i] = 0;
    }
  }
  const uint32_t own_id = own();
  const uint32_t done_id = done_id_[self];
  const bool is_doubtful =
      has_gap && own_id > done_id && id_batch_find(&log, own_id, static_cast<uint8_t>(self + 1)) < 0;
  // Only a node that lost its disk submits an identifier below one that was already decided for it.
  const bool is_overtaken = own_id < done_id;
  {
    cons_lock lock(paxos.deliver_lock);
    if (own_id != 0 && (is_doubtful || is_overtaken)) {
      give_up_own();
    }
    paxos.deliver_cond.broadcast();
  }
  paxos.forward_free_cond.broadcast();
  paxos.launch_cond.signal();
}

void waiting_ids::delivered(uint32_t own_id)
{
  if (own() != 0 && own() <= own_id) {
    raise_done(own_entry(own()));
    settled();
  }
}

void waiting_ids::settled()
{
  withdraw_forward();
  pending_id_[paxos_own_index()] = 0;
  paxos.forward_free_cond.broadcast();
}
