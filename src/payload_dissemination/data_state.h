/// State of the payload layer, one per process.
///
/// Lock order: pull.lock, deliver_queue_lock, then the locks of the payload table. The locks of the offer records are
/// leaves. deliver_queue_lock is held while a payload is delivered. So a thread that holds a lock that delivery takes
/// must not wait for deliver_queue_lock, nor for pull.lock, whose holder may wait for the queue.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "common/repetition_filter.h"
#include "payload_dissemination/data_callbacks.h"
#include "payload_dissemination/data_stopped.h"
#include "payload_dissemination/offer_record.h"
#include "payload_dissemination/pull_record.h"
#include "service/entry_gate.h"
#include "service/library_thread.h"

void *paxos_data_pull_thread(void *);
void *paxos_data_deliver_thread(void *);

struct paxos_data_state {
  std::atomic<bool> initialised{false};
  paxos_data_callbacks callbacks;  // set while nothing runs
  entry_gate recv_gate{false};
  repetition_filter offers_heard;

  offer_record offer;        // of the calls of vx_cons_distribute
  offer_record state_offer;  // of the propose-thread
  pull_record pull;

  // The latest decided log, and how far it is queued. pull_pos changes only with deliver_queue_lock held as well.
  id_batch pull_batch CONS_GUARDED_BY(pull.lock);
  uint32_t pull_pos CONS_GUARDED_BY(pull.lock) = 0;
  bool switch_pending CONS_GUARDED_BY(pull.lock) = true;  // the queue still holds another log
  id_entry last_queued CONS_GUARDED_BY(pull.lock);        // since start; zero = none

  // From the last hand-over; they decide which payloads are superseded.
  std::array<uint32_t, NODES_MAX> done_ids CONS_GUARDED_BY(pull.lock) = {};
  uint32_t pull_number CONS_GUARDED_BY(pull.lock) = 0;
  bool is_sweep_due CONS_GUARDED_BY(pull.lock) = false;
  int64_t swept_us CONS_GUARDED_BY(pull.lock) = 0;

  // Entries of pull_batch before this position are here or lost.
  uint32_t repair_pos CONS_GUARDED_BY(pull.lock) = 0;
  std::atomic<uint64_t> settled_base{0};  // the log's first entry once it is one of them, packed

  // Ready to be delivered: the first pull_pos entries of pull_batch, unless a switch is pending.
  cons_mutex deliver_queue_lock{lock_rank::deliver_queue};
  cons_cond deliver_queue_cond;  // an entry was queued, the queue was found empty, or stop
  id_batch deliver_batch CONS_GUARDED_BY(deliver_queue_lock);
  uint32_t deliver_pos CONS_GUARDED_BY(deliver_queue_lock) = 0;
  uint32_t handed_number CONS_GUARDED_BY(deliver_queue_lock) = 0;   // decision number of the last hand-over
  uint32_t still_to_queue CONS_GUARDED_BY(deliver_queue_lock) = 0;  // entries of pull_batch from pull_pos on
  std::atomic<uint32_t> handled{0};

  // Touched by start and stop only.
  library_thread deliver_thread{"deliver-thread", paxos_data_deliver_thread};
  library_thread pull_thread{"pull-thread", paxos_data_pull_thread};
};
inline constinit paxos_data_state paxos_data;

/// An entry in one integer.
inline uint64_t paxos_data_packed(id_entry entry)
{
  return uint64_t{entry.sender} << 32 | entry.msg_id;
}

/// Updates `handled` if every entry of the last hand-over was delivered or skipped. Returns whether `handled` changed;
/// the caller then calls callbacks.handled.
bool paxos_data_note_handled() CONS_REQUIRES(paxos_data.deliver_queue_lock);

/// Queues entry pull_pos for delivery. If a switch is pending, first waits until the queue is empty and makes it hold
/// the new log. Queues nothing if the layer stops meanwhile.
void paxos_data_queue_next() CONS_REQUIRES(paxos_data.pull.lock);
