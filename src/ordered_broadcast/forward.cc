#include "ordered_broadcast/forward.h"

#include "common/repetition_filter.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/waiting_ids.h"
#include "payload_dissemination/loss_watch.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_table.h"
#include "round_based_registers/consensus.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RETRY_US = 1000000;

constinit repetition_filter forwards_heard;

// Takes back what the proposer was given and waits until it is idle. Blocks: do not hold forward_lock.
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

// Returns false if the FORWARD could not be queued and must be tried again.
bool serve_as_follower() CONS_REQUIRES(paxos.forward_lock)
{
  const uint32_t own_id = paxos_waiting.own();
  if (own_id == 0) {
    return true;
  }
  if (paxos_waiting.is_decided(own_entry(own_id))) {
    paxos_waiting.withdraw_forward();
    return true;
  }
  {
    cons_lock lock(paxos.propose_lock);
    paxos_log.withdraw();
  }
  return paxos_waiting.forward_own();
}

// With durable payloads the snapshot that begins a log says what was decided before it. A leader that does not know
// this could order such a message again.
bool knows_base(id_entry &known) CONS_REQUIRES(paxos.forward_lock)
{
  if (!cons_service.durable_payloads) {
    return true;
  }
  id_entry base;
  {
    cons_lock lock(paxos.propose_lock);
    base = id_batch_first(paxos_log.batch());
  }
  if (base == known) {
    return true;
  }
  if (payload_entry *entry = paxos_data_get_entry(base.msg_id, base.sender)) {
    state_marks marks;
    if (state_marks_get(entry->payload, marks)) {
      paxos_waiting.seen_decided_before(marks);
    }
    payload_entry_release(entry);
  } else if (!paxos_data_is_base_settled(base)) {
    return false;
  }
  known = base;
  return true;
}

enum class pass_result { done, start_over, retry_later };

// What the launch-thread remembers from pass to pass.
struct launch_memory {
  bool was_leader = false;
  id_entry base;  // first entry of the log whose earlier decisions are known; zero = empty log
};

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
      return pass_result::start_over;  // leader again: going on as a follower would withdraw the DECIDE just sent
    }
  }
  const bool may_hand_over = knows_base(memory.base);
  paxos_waiting.retire_decided(is_leader);
  if (!is_leader) {
    return serve_as_follower() ? pass_result::done : pass_result::retry_later;
  }
  paxos_waiting.withdraw_forward();
  if (may_hand_over) {
    paxos_waiting.hand_over();
  }
  return pass_result::done;
}

}  // namespace

void paxos_recv_forward(id_entry entry, uint32_t sender_addr)
{
  const uint32_t sender = node_id_of_addr(sender_addr);
  if (is_member(sender) && forwards_heard.is_new(sender, entry.msg_id)) {
    paxos_data_losses->heard(sender);
  }
  if (paxos.is_leader == 0) {
    return;
  }
  cons_lock lock(paxos.forward_lock);
  const bool is_taken = paxos_waiting.forwarded(entry);
  vx_log("CONS: PAXOS: FORWARD%s (sender=%u)\n", is_taken ? "" : " dupe/busy", sender);
}

void paxos_look_for_base()
{
  cons_lock lock(paxos.forward_lock);
  paxos.launch_cond.signal();
}

void *paxos_launch_thread(void *)
{
  launch_memory memory;
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
