#include "ordered_broadcast/forward.h"

#include "ordered_broadcast/paxos_messages.h"
#include "ordered_broadcast/paxos_state.h"
#include "round_based_registers/consensus.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RETRY_US = 1000000;

// What the thread remembers from pass to pass.
struct launch_memory {
  uint32_t last_served;
  bool was_leader = false;
};

// Withdraws what the proposer has been given and waits until it is idle. Blocks: not with forward_lock held.
void paxos_leave_leader()
{
  cons_lock lock(paxos.propose_lock);
  paxos_idle_request();
  while (paxos.next_proposal.msg_id != 0) {
    paxos.next_proposal = {};
    consensus_cancel(paxos.running_instance);
    paxos_wait_proposer_idle();
  }
  paxos_idle_release();
}

// What has been seen decided is never handed over again. A follower's own entry is freed by its delivery.
void retire_decided(bool is_leader) CONS_REQUIRES(paxos.forward_lock)
{
  bool is_freed = false;
  for (uint32_t i = 0; i < cons_service.node_count; ++i) {
    const bool may_retire = is_leader || i != paxos_own_index();
    if (may_retire && paxos.pending_id[i] != 0 && paxos.pending_id[i] <= paxos.done_id[i]) {
      paxos.pending_id[i] = 0;
      is_freed = true;
    }
  }
  if (is_freed) {
    paxos.forward_free_cond.broadcast();
  }
}

void withdraw_forward_on_entering() CONS_REQUIRES(paxos.forward_lock)
{
  vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_FORWARD, 0);
  cons_lock lock(paxos.deliver_lock);
  paxos.forward_active = false;
}

// One node at a time in turn.
void hand_over_next(uint32_t &last_served) CONS_REQUIRES(paxos.forward_lock)
{
  const uint32_t node_count = cons_service.node_count;
  for (uint32_t i = 0; i < node_count; ++i) {
    const uint32_t index = (last_served + 1 + i) % node_count;
    if (paxos.pending_id[index] == 0) {
      continue;
    }
    cons_lock lock(paxos.propose_lock);
    if (paxos.next_proposal.msg_id == 0) {
      paxos.next_proposal = {.sender = static_cast<uint8_t>(index + 1), .msg_id = paxos.pending_id[index]};
      last_served = index;
      paxos.propose_cond.signal();
    }
    return;
  }
}

// False if the FORWARD has to be tried again.
bool forward_own() CONS_REQUIRES(paxos.forward_lock)
{
  const uint32_t self = paxos_own_index();
  const uint32_t pending_id = paxos.pending_id[self];
  if (pending_id == 0) {
    return true;
  }
  if (pending_id <= paxos.done_id[self]) {
    cons_lock lock(paxos.deliver_lock);
    paxos_forward_withdraw();
    return true;
  }
  {
    cons_lock lock(paxos.propose_lock);
    vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_DECIDE, 0);
  }
  {
    cons_lock lock(paxos.deliver_lock);
    paxos.forward_active = true;
  }
  vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_FORWARD, 0);
  return paxos_forward_send({.sender = static_cast<uint8_t>(self + 1), .msg_id = pending_id});
}

enum class pass_result { done, start_over, retry_later };

pass_result serve_once(launch_memory &memory) CONS_REQUIRES(paxos.forward_lock)
{
  const bool is_leader = paxos.is_leader != 0;
  const bool is_changed = is_leader != memory.was_leader;
  memory.was_leader = is_leader;
  if (is_changed && !is_leader) {
    paxos.forward_lock.unlock();
    paxos_leave_leader();
    paxos.forward_lock.lock();
    if (paxos.is_leader != 0) {
      return pass_result::start_over;  // leader again meanwhile: going on as a follower would withdraw the DECIDE just
                                       // sent
    }
  }
  retire_decided(is_leader);
  if (!is_leader) {
    return forward_own() ? pass_result::done : pass_result::retry_later;
  }
  if (is_changed) {
    withdraw_forward_on_entering();
  }
  hand_over_next(memory.last_served);
  return pass_result::done;
}

}  // namespace

void *paxos_launch_thread(void *)
{
  launch_memory memory = {.last_served = cons_service.node_count - 1};
  cons_lock lock(paxos.forward_lock);
  while (!paxos.stopped) {
    const pass_result result = serve_once(memory);
    if (paxos.stopped || result == pass_result::start_over) {
      continue;
    }
    if (result == pass_result::retry_later) {
      paxos.launch_cond.wait_for_us(paxos.forward_lock, RETRY_US);
    } else {
      paxos.launch_cond.wait(paxos.forward_lock);
    }
  }
  return nullptr;
}
