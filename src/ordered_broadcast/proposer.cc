#include "ordered_broadcast/proposer.h"

#include <optional>

#include "common/monotonic_clock.h"
#include "ordered_broadcast/abandoned_states.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/full_state.h"
#include "ordered_broadcast/message_ids.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/waiting_ids.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_files.h"
#include "payload_dissemination/payload_table.h"
#include "round_based_registers/consensus.h"
#include "round_based_registers/register_protocol.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RETRY_US = 1000000;

struct proposal {
  uint32_t batch_id = 0;
  id_batch batch;  // the log once decided; without the decided entry unless is_full_state
  bool is_full_state = false;
  id_entry entry;  // what is proposed
};

bool needs_full_state() CONS_REQUIRES(paxos.propose_lock)
{
  const uint32_t count = id_batch_count(paxos_log.batch());
  return count == 0 || count == ID_BATCH_MAX;
}

// A new log begins when this node has delivered, or skipped as lost, every entry of the old one. The snapshot then
// holds all that this node has of the old log.
bool may_begin_log() CONS_REQUIRES(paxos.propose_lock)
{
  return id_batch_count(paxos_log.batch()) == 0 || paxos_data_handled() == paxos_log.number();
}

bool may_go_on()
{
  return paxos.is_leader != 0 && !paxos.stopped && paxos.idle_waiters == 0;
}

bool may_start() CONS_REQUIRES(paxos.propose_lock)
{
  return may_go_on() && paxos_waiting.next_proposal().msg_id != 0 && (!needs_full_state() || may_begin_log());
}

// Idle until there is something to propose. After a proposal that could not begin (is_parked), idle at least until the
// next wake-up. Returns false when the protocol stops.
bool wait_for_work(bool is_parked, abandoned_states &abandoned) CONS_REQUIRES(paxos.propose_lock)
{
  while (!paxos.stopped) {
    abandoned.release_superseded();  // each adoption wakes this thread, also on a follower
    if (may_start() && !is_parked) {
      return true;
    }
    is_parked = false;
    paxos.proposer_idle = true;
    paxos.propose_idle_cond.broadcast();
    if (paxos_waiting.next_proposal().msg_id != 0) {
      paxos.propose_cond.wait_for_us(paxos.propose_lock, RETRY_US);
    } else {
      paxos.propose_cond.wait(paxos.propose_lock);
    }
    paxos.proposer_idle = false;
  }
  return false;
}

// With durable payloads another attempt at a number proposes the same state again, also after a restart: a leader that
// comes and goes spreads one. 0 = this node has made none.
uint32_t made_state(uint32_t number)
{
  const auto self = static_cast<uint8_t>(cons_service.node_id);
  const uint32_t msg_id = cons_service.durable_payloads ? payload_table_find_state(self, number) : 0;
  return msg_id != 0 && paxos_data_has_entry(msg_id, self) != 0 ? msg_id : 0;
}

// `free_id` is an identifier that nothing was made under yet.
bool begin_log(proposal &p, uint32_t &free_id) CONS_REQUIRES(paxos.propose_lock)
{
  p.entry = own_entry(made_state(p.batch_id));
  if (p.entry.msg_id != 0) {
    p.batch = id_batch_of(p.entry);
    return true;
  }
  p.entry.msg_id = free_id;
  if (!paxos_begin_log(p.batch, p.entry)) {
    return false;
  }
  free_id = 0;
  return true;
}

// What is proposed for the next number.
bool choose(proposal &p, uint32_t &free_id) CONS_REQUIRES(paxos.propose_lock)
{
  p.batch_id = paxos_log.number() + 1;
  paxos.proposal_batch_id = p.batch_id;
  p.is_full_state = needs_full_state();
  if (p.is_full_state) {
    return begin_log(p, free_id);
  }
  p.batch = paxos_log.batch();
  p.entry = paxos_waiting.next_proposal();
  return true;
}

enum class spread_result { stored, refused, withdrawn };

// A snapshot goes to a quorum of disks before it is proposed, so that every entry of a log is on a quorum of disks.
// Adoption, the end of leader mode and stop end the wait.
spread_result spread(const proposal &p)
{
  if (!payload_files_make_durable(p.entry)) {
    return spread_result::refused;
  }
  return paxos_data_offer_state(p.entry.msg_id, may_go_on) ? spread_result::stored : spread_result::withdrawn;
}

bool still_holds(const proposal &p) CONS_REQUIRES(paxos.propose_lock)
{
  return may_start() && needs_full_state() == p.is_full_state && p.batch_id == paxos_log.number() + 1;
}

bool create_instance(const proposal &p) CONS_REQUIRES(paxos.propose_lock)
{
  paxos.running_instance = consensus_create(p.batch_id);
  if (paxos.running_instance == nullptr && p.is_full_state && !cons_service.durable_payloads) {
    paxos_data_unhash_entry(p.entry.msg_id, p.entry.sender);
  }
  return paxos.running_instance != nullptr;
}

bool may_attempt()
{
  cons_lock lock(paxos.propose_lock);
  return may_go_on();
}

// An immediate attempt would fail as well: there is no memory, no disk or no round left.
void pause_after_error()
{
  const int64_t end_us = monotonic_us() + RETRY_US;
  cons_lock lock(paxos.propose_lock);
  for (int64_t left_us = RETRY_US; left_us > 0 && may_go_on(); left_us = end_us - monotonic_us()) {
    paxos.propose_cond.wait_for_us(paxos.propose_lock, left_us);
  }
}

// Node k of n uses the rounds k, k + n, k + 2n and so on, which no other node uses. It begins above every round that
// its acceptor has seen.
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

// Returns nothing if another decision was adopted meanwhile, or if this one cannot be saved.
std::optional<installed_decision> install(const proposal &p)
{
  cons_lock lock(paxos.propose_lock);
  if (p.batch_id != paxos_log.number() + 1) {
    return std::nullopt;
  }
  return paxos_log.install(p.batch_id, p.batch);
}

// A decided message is not proposed again. After a snapshot the waiting identifier comes next, in the new log.
void retire_proposal(const proposal &p, id_entry decided)
{
  cons_lock lock(paxos.forward_lock);
  if (!p.is_full_state) {
    cons_lock propose_lock(paxos.propose_lock);
    paxos_waiting.proposal_decided(decided);
  }
  paxos.launch_cond.signal();
}

// Returns false if the decided value is not a valid entry. No proposal for this number can go on then.
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
  } else if (id_batch_find(&p.batch, decided.msg_id, decided.sender) < 0) {
    // Another leader's snapshot was read back. The log of this number begins with that one on every node.
    p.batch = id_batch_of(decided);
  }
  if (const auto installed = install(p)) {
    paxos_hand_over(*installed);
  }
  retire_proposal(p, decided);
  return true;
}

// Returns whether the thread must pause before it tries again.
bool run(consensus &instance, proposal &p, abandoned_states &abandoned)
{
  vx_log("CONS: PAXOS: PROPOSE%s (batch_id=%u)\n", p.is_full_state ? " full state" : "", p.batch_id);
  cons_value decision;
  const int result = decide(instance, p, decision);
  if (p.is_full_state && !cons_service.durable_payloads) {
    abandoned.add(p.entry, p.batch_id);  // unless the log of this number names it
  }
  return result == RB_REG_COMMITTED ? !commit(p, decision) : result == RB_REG_ERROR;
}

}  // namespace

void *paxos_propose_thread(void *)
{
  cons_lock lock(paxos.propose_lock);
  abandoned_states abandoned;
  uint32_t free_id = 0;
  bool is_parked = false;
  while (wait_for_work(is_parked, abandoned)) {
    if (free_id == 0 && needs_full_state() && made_state(paxos_log.number() + 1) == 0) {
      lock.unlock();  // the identifier is saved: no lock waits for that
      free_id = msg_id_next(false);
      lock.lock();
      is_parked = free_id == 0;
      continue;
    }
    proposal p;
    is_parked = !choose(p, free_id);
    if (is_parked) {
      continue;
    }
    if (p.is_full_state && cons_service.durable_payloads) {
      lock.unlock();
      const spread_result result = spread(p);
      lock.lock();
      is_parked = result == spread_result::refused;
      if (result != spread_result::stored || !still_holds(p)) {
        continue;
      }
    }
    is_parked = !create_instance(p);
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
