#include "ordered_broadcast/proposer.h"

#include <algorithm>

#include "common/monotonic_clock.h"
#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/durable_state.h"
#include "ordered_broadcast/full_state.h"
#include "ordered_broadcast/paxos_messages.h"
#include "ordered_broadcast/paxos_state.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_table.h"
#include "round_based_registers/consensus.h"
#include "round_based_registers/register_table.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RETRY_US = 1000000;

struct proposal {
  id_entry working_copy;  // of next_proposal
  uint32_t batch_id = 0;
  id_batch batch;  // the log if it commits; a normal proposal's decided entry is still to be added
  bool is_full_state = false;
  id_entry entry;  // what is proposed
};

// States that this node proposed in vain. Another leader may have read one in the register and decide it; once its
// number is decided and the log does not name it, nobody will ask for it any more.
class abandoned_states
{
public:
  // The oldest of too many stay stored.
  void add(const proposal &p)
  {
    states_[next_] = {.entry = p.entry, .number = p.batch_id};
    next_ = (next_ + 1) % STATES_MAX;
  }
  void release_superseded() CONS_REQUIRES(paxos.propose_lock)
  {
    for (state &s : states_) {
      if (s.number == 0 || paxos.batch_id < s.number) {
        continue;
      }
      if (id_batch_find(&paxos.decided_batch, s.entry.msg_id, s.entry.sender) < 0) {
        paxos_data_unhash_entry(s.entry.msg_id, s.entry.sender);
      }
      s = {};
    }
  }

private:
  struct state {
    id_entry entry;
    uint32_t number = 0;
  };
  static constexpr size_t STATES_MAX = 8;
  state states_[STATES_MAX];
  size_t next_ = 0;
};

bool needs_full_state() CONS_REQUIRES(paxos.propose_lock)
{
  const uint32_t count = id_batch_count(paxos.decided_batch);
  return count == 0 || count == ID_BATCH_MAX;
}

// A new log begins when this node has delivered, or skipped as lost, all of the old one: the snapshot then holds
// exactly the old log, and nothing of it is carried over.
bool may_begin_log() CONS_REQUIRES(paxos.propose_lock)
{
  return id_batch_count(paxos.decided_batch) == 0 || paxos_data_handled() == paxos.batch_id;
}

bool may_go_on() CONS_REQUIRES(paxos.propose_lock)
{
  return paxos.is_leader != 0 && !paxos.stopped && paxos.idle_waiters == 0;
}

bool may_start() CONS_REQUIRES(paxos.propose_lock)
{
  return may_go_on() && paxos.next_proposal.msg_id != 0 && (!needs_full_state() || may_begin_log());
}

// Idle until there is something to propose, or, after a proposal that could not begin, until the next wake-up.
// False when the protocol stops.
bool wait_for_work(bool is_parked, abandoned_states &abandoned) CONS_REQUIRES(paxos.propose_lock)
{
  while (!paxos.stopped) {
    abandoned.release_superseded();  // each adoption wakes us, also where we lead no more
    if (may_start() && !is_parked) {
      return true;
    }
    is_parked = false;
    paxos.proposer_idle = true;
    paxos.propose_idle_cond.broadcast();
    if (paxos.next_proposal.msg_id != 0) {
      paxos.propose_cond.wait_for_us(paxos.propose_lock, RETRY_US);
    } else {
      paxos.propose_cond.wait(paxos.propose_lock);
    }
    paxos.proposer_idle = false;
  }
  return false;
}

bool prepare(proposal &p) CONS_REQUIRES(paxos.propose_lock)
{
  p.working_copy = paxos.next_proposal;
  p.batch_id = paxos.batch_id + 1;
  paxos.proposal_batch_id = p.batch_id;
  p.is_full_state = needs_full_state();
  if (p.is_full_state && !paxos_begin_log(p.batch, p.entry)) {
    return false;
  }
  if (!p.is_full_state) {
    p.batch = paxos.decided_batch;
    p.entry = p.working_copy;
  }
  paxos.running_instance = consensus_create(p.batch_id);
  if (paxos.running_instance == nullptr && p.is_full_state) {
    paxos_data_unhash_entry(p.entry.msg_id, p.entry.sender);
  }
  return paxos.running_instance != nullptr;
}

bool may_attempt()
{
  cons_lock lock(paxos.propose_lock);
  return may_go_on();
}

// Something is wrong here that the next attempt would meet too: no memory, no disk, no round left.
void pause_after_error()
{
  const int64_t end_us = monotonic_us() + RETRY_US;
  cons_lock lock(paxos.propose_lock);
  for (int64_t left_us = RETRY_US; left_us > 0 && may_go_on(); left_us = end_us - monotonic_us()) {
    paxos.propose_cond.wait_for_us(paxos.propose_lock, left_us);
  }
}

// Node k of n uses the rounds k, k + n, k + 2n, .. which no other node uses, from the first on that this node's
// acceptor has not seen.
int decide(consensus &instance, const proposal &p, cons_value &decision)
{
  uint8_t bytes[ID_ENTRY_SIZE];
  id_entry_put(bytes, p.entry);
  cons_value value;
  if (!value.assign(bytes)) {
    return RB_REG_ERROR;
  }
  uint64_t round = 0;
  int result = RB_REG_CANCELLED;
  while (may_attempt()) {
    round = round == 0 ? consensus_first_round(instance) : round + cons_service.node_count;
    const bool is_round = round != 0 && round <= UINT32_MAX;
    result = is_round ? consensus_propose(instance, static_cast<uint32_t>(round), value, decision) : int{RB_REG_ERROR};
    if (result == RB_REG_ERROR) {
      pause_after_error();
    } else if (result != RB_REG_ABORTED) {
      break;
    }
  }
  return result;
}

// Saves and announces the new decision, unless one came from elsewhere meanwhile. True if there is something to hand
// over to the payload layer.
bool install(const proposal &p, id_entry &last_delivered)
{
  cons_lock lock(paxos.propose_lock);
  if (p.batch_id != paxos.batch_id + 1) {
    return false;
  }
  if (p.is_full_state) {
    cons_lock deliver_lock(paxos.deliver_lock);
    calls_mark_swallowed(paxos.decided_batch, p.batch);
  }
  paxos.decided_batch = p.batch;
  paxos.batch_id = p.batch_id;
  if (paxos_decide_save() != 0) {
    return false;
  }
  rb_reg_delete_up_to(paxos.batch_id);
  paxos_decide_bcast();
  cons_lock deliver_lock(paxos.deliver_lock);
  last_delivered = paxos.last_delivered;
  return true;
}

// A message that was decided is not proposed again; after a full state the waiting one comes next, in the new log.
void retire_proposal(const proposal &p, id_entry decided)
{
  cons_lock lock(paxos.forward_lock);
  if (!p.is_full_state) {
    const uint32_t index = decided.sender - 1u;
    paxos.done_id[index] = std::max(paxos.done_id[index], decided.msg_id);
    if (paxos.pending_id[index] <= decided.msg_id) {
      paxos.pending_id[index] = 0;
      paxos.forward_free_cond.broadcast();
    }
    cons_lock propose_lock(paxos.propose_lock);
    paxos.next_proposal = {};
  }
  paxos.launch_cond.signal();
}

// False if the register holds what cannot be an entry: no proposal for this number can go on.
bool commit(proposal &p, const cons_value &decision)
{
  if (decision.length() != ID_ENTRY_SIZE) {
    return false;
  }
  const id_entry decided = id_entry_get(decision.bytes().data());
  if (!id_entry_valid(decided)) {
    return false;
  }
  if (!p.is_full_state) {
    id_batch_add(&p.batch, decided.msg_id, decided.sender);
  }
  id_entry last_delivered;
  if (install(p, last_delivered)) {
    paxos_data_pull(p.batch, last_delivered, p.batch_id);
  }
  retire_proposal(p, decided);
  return true;
}

// Returns whether the thread has to pause before it tries again.
bool run(consensus &instance, proposal &p, abandoned_states &abandoned)
{
  vx_log("CONS: PAXOS: PROPOSE%s (batch_id=%u)\n", p.is_full_state ? " full state" : "", p.batch_id);
  cons_value decision;
  const int result = decide(instance, p, decision);
  if (result != RB_REG_COMMITTED) {
    if (p.is_full_state) {
      abandoned.add(p);
    }
    return result == RB_REG_ERROR;
  }
  const bool is_entry = commit(p, decision);
  if (!is_entry && p.is_full_state) {
    paxos_data_unhash_entry(p.entry.msg_id, p.entry.sender);
  }
  return !is_entry;
}

}  // namespace

void *paxos_propose_thread(void *)
{
  cons_lock lock(paxos.propose_lock);
  abandoned_states abandoned;
  bool is_parked = false;
  while (wait_for_work(is_parked, abandoned)) {
    proposal p;
    is_parked = !prepare(p);
    if (is_parked) {
      continue;
    }
    consensus *instance = paxos.running_instance;
    lock.unlock();
    is_parked = run(*instance, p, abandoned);
    lock.lock();
    paxos.running_instance = nullptr;
    consensus_free(instance);
  }
  return nullptr;
}
