/// Locks, conditions, flags and shared state of the ordered broadcast, one per process. The last decision is in
/// decided_log.h, the waiting identifiers are in waiting_ids.h.
///
/// Lock order: forward_lock, propose_lock, deliver_lock. A thread that holds one takes only later ones. The payload
/// layer holds its queue's lock while it delivers, and delivery takes forward_lock and deliver_lock. So no thread may
/// wait for that queue (paxos_data_pull) with one of these locks held. Every wait tests its predicate and `stopped`
/// before it begins and after every wake-up.
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
  /// Written by the leader-watch-thread with forward_lock and propose_lock held; cleared by init, when nothing runs.
  std::atomic<uint32_t> is_leader{0};

  cons_mutex forward_lock{lock_rank::forward};
  cons_cond forward_free_cond;  // this node's slot is free, a call that waited for it left, or stop
  cons_cond launch_cond;        // the launch-thread has something to check

  cons_mutex propose_lock{lock_rank::propose};
  cons_cond propose_cond;       // the propose-thread has something to check
  cons_cond propose_idle_cond;  // the propose-thread became idle, or stop
  uint32_t proposal_batch_id CONS_GUARDED_BY(propose_lock) = 0;
  consensus *running_instance CONS_GUARDED_BY(propose_lock) = nullptr;  // target of a cancel; null = none
  bool proposer_idle CONS_GUARDED_BY(propose_lock) = false;
  /// Number of threads that wait for the proposer to be idle, or still do what they waited for. Until it is 0 the
  /// proposer starts nothing. Written with propose_lock held; read without it while the proposer offers a snapshot.
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

/// Request: the proposer becomes idle and starts nothing. Wait: until it is idle or the protocol stops. Release: it may
/// go on.
void paxos_idle_request() CONS_REQUIRES(paxos.propose_lock);
void paxos_wait_proposer_idle() CONS_REQUIRES(paxos.propose_lock);
void paxos_idle_release() CONS_REQUIRES(paxos.propose_lock);
