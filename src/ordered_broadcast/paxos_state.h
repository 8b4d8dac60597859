/// Locks, conditions and flags of the ordered broadcast, and what its threads share but for the last decision
/// (decided_log.h) and the identifiers that wait (waiting_ids.h): one per process.
///
/// Lock order: forward_lock, propose_lock, deliver_lock; who holds one takes only later ones. The payload layer holds
/// its queue's lock while it delivers, and delivery takes forward_lock and deliver_lock: so nobody waits for that
/// queue (paxos_data_pull) with one of these held. Every wait tests its predicate and `stopped` before it begins and
/// after every wake-up.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"

struct consensus;
struct distribute_call;

struct paxos_state {
  std::atomic<bool> stopped{true};
  /// Written with forward_lock and propose_lock held by the leader watch; cleared by init, when nothing runs.
  std::atomic<uint32_t> is_leader{0};

  cons_mutex forward_lock{lock_rank::forward};
  cons_cond forward_free_cond;  // an identifier that waited is gone, a call left the queue for it, or stop
  cons_cond launch_cond;        // something for the launch-thread to look at

  cons_mutex propose_lock{lock_rank::propose};
  cons_cond propose_cond;       // something for the propose-thread to look at
  cons_cond propose_idle_cond;  // the propose-thread became idle, or stop
  uint32_t proposal_batch_id CONS_GUARDED_BY(propose_lock) = 0;
  consensus *running_instance CONS_GUARDED_BY(propose_lock) = nullptr;  // the one that a cancel reaches
  bool proposer_idle CONS_GUARDED_BY(propose_lock) = false;
  /// Who waits for the proposer to be idle, or has not finished what he waited for: it starts nothing meanwhile.
  /// Written with propose_lock held; a proposer that offers a state reads it without.
  std::atomic<uint32_t> idle_waiters{0};

  cons_mutex deliver_lock{lock_rank::deliver};
  cons_cond deliver_cond;                                 // a call got its verdict, or stop
  id_entry last_delivered CONS_GUARDED_BY(deliver_lock);  // zero = none
  uint32_t
      delivered_id[NODES_MAX] CONS_GUARDED_BY(deliver_lock) = {};  // per sender, highest delivered here; for debuggers
  distribute_call *calls CONS_GUARDED_BY(deliver_lock) = nullptr;  // open calls of vx_cons_distribute

  std::atomic<bool> proposer_running{false};
};
inline constinit paxos_state paxos;

/// This node's index in the per-node tables.
uint32_t paxos_own_index();

/// Ask the proposer to be idle and to start nothing; wait until it is (or the protocol stops); let it go on.
void paxos_idle_request() CONS_REQUIRES(paxos.propose_lock);
void paxos_wait_proposer_idle() CONS_REQUIRES(paxos.propose_lock);
void paxos_idle_release() CONS_REQUIRES(paxos.propose_lock);
