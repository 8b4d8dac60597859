#include "ordered_broadcast/forward.h"

#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/waiting_ids.h"
#include "round_based_registers/consensus.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RETRY_US = 1000000;

// Withdraws what the proposer has been given and waits until it is idle. Blocks: not with forward_lock held.
void paxos_leave_leader()
{
  cons_lock lock(paxos.propose_lock);
  paxos_idle_request();
  while (paxos_waiting.next_proposal().msg_id != 0) {
    paxos_waiting.take_back();
    consensus_cancel(paxos.running_instance);
    paxos_wait_proposer_idle();
  }
  paxos_idle_release();
}

// False if the FORWARD has to be tried again.
bool serve_as_follower() CONS_REQUIRES(paxos.forward_lock)
{
  const uint32_t own_id = paxos_waiting.own();
  if (own_id == 0) {
    return true;
  }
  if (paxos_waiting.is_decided({.sender = static_cast<uint8_t>(cons_service.node_id), .msg_id = own_id})) {
    paxos_waiting.withdraw_forward();
    return true;
  }
  {
    cons_lock lock(paxos.propose_lock);
    paxos_log.withdraw();
  }
  return paxos_waiting.forward_own();
}

enum class pass_result { done, start_over, retry_later };

pass_result serve_once(bool &was_leader) CONS_REQUIRES(paxos.forward_lock)
{
  const bool is_leader = paxos.is_leader != 0;
  const bool is_changed = is_leader != was_leader;
  was_leader = is_leader;
  if (is_changed && !is_leader) {
    paxos.forward_lock.unlock();
    paxos_leave_leader();
    paxos.forward_lock.lock();
    if (paxos.is_leader != 0) {
      return pass_result::start_over;  // leader again meanwhile: going on as a follower would withdraw the DECIDE just
                                       // sent
    }
  }
  paxos_waiting.retire_decided(is_leader);
  if (!is_leader) {
    return serve_as_follower() ? pass_result::done : pass_result::retry_later;
  }
  paxos_waiting.withdraw_forward();
  paxos_waiting.hand_over();
  return pass_result::done;
}

}  // namespace

void paxos_recv_forward(id_entry entry, uint32_t sender_addr)
{
  if (paxos.is_leader == 0) {
    return;
  }
  cons_lock lock(paxos.forward_lock);
  const bool is_taken = paxos_waiting.forwarded(entry);
  vx_log("CONS: PAXOS: FORWARD%s (sender=%u)\n", is_taken ? "" : " dupe/busy", node_id_of_addr(sender_addr));
}

void *paxos_launch_thread(void *)
{
  bool was_leader = false;
  cons_lock lock(paxos.forward_lock);
  while (!paxos.stopped) {
    const pass_result result = serve_once(was_leader);
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
