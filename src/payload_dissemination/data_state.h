/// State of the payload layer: one per process.
///
/// Lock order: pull_xfer.lock, deliver_queue_lock, then the locks of the payload table. offer_xfer.lock stands alone.
/// deliver_queue_lock is held while a payload is delivered, so whoever holds a lock that delivery takes must not
/// wait for it, nor for pull_xfer.lock, whose holder may be waiting for the queue.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "payload_dissemination/paxos_data.h"
#include "service/entry_gate.h"
#include "service/library_thread.h"

inline constexpr uint8_t XFER_NODE_HAS_IT = 3;    ///< offer: the node has the payload
inline constexpr uint8_t XFER_NODE_LACKS_IT = 4;  ///< pull: the node answered MISSING

/// A payload on its way from or to this node.
struct xfer_state {
  constexpr explicit xfer_state(lock_rank rank) : lock(rank) {}

  cons_mutex lock;
  cons_cond changed_cond;                 // an answer arrived, a transfer ended, a batch was handed over, or stop
  uint32_t id CONS_GUARDED_BY(lock) = 0;  // 0 = the record is free
  uint8_t sender CONS_GUARDED_BY(lock) = 0;
  uint8_t node_state[NODES_MAX] CONS_GUARDED_BY(lock) = {};

  // The rest is of use when pulling.
  int64_t marked_us[NODES_MAX] CONS_GUARDED_BY(lock) = {};  // when the node's mark was set, monotonic
  uint8_t *buffer CONS_GUARDED_BY(lock) = nullptr;          // owned; `total` bytes, from the first DATA piece on
  uint32_t total CONS_GUARDED_BY(lock) = 0;                 // size of the payload
  uint8_t *piece_map CONS_GUARDED_BY(lock) = nullptr;       // owned; one byte per piece, 1 = received
  uint32_t pieces CONS_GUARDED_BY(lock) = 0;
  timeval last CONS_GUARDED_BY(lock) = {};                 // last DATA piece; zero = none
  bool is_pulled CONS_GUARDED_BY(lock) = false;            // the pull-thread waits for it, not just an OFFER
  uint32_t unanswered_requests CONS_GUARDED_BY(lock) = 0;  // of the pull-thread, since its claim or the last DATA
  int64_t request_us CONS_GUARDED_BY(lock) = 0;            // the last of them, monotonic
  int64_t data_us CONS_GUARDED_BY(lock) = 0;               // last DATA, monotonic
  int64_t activity_us CONS_GUARDED_BY(lock) = 0;           // last REQ or DATA, monotonic

  // The last loss that was judged with all patience, monotonic, which nodes said MISSING (bit n - 1 = node n), and the
  // decisions received until then; kept when the transfer ends. 0: none that says anything about the next.
  int64_t lost_us CONS_GUARDED_BY(lock) = 0;
  uint32_t lost_lacking CONS_GUARDED_BY(lock) = 0;
  uint64_t lost_received CONS_GUARDED_BY(lock) = 0;
};

/// Ends a transfer: frees the buffers and sets every field but lock, condition and the last loss to zero.
void xfer_reset(xfer_state &record) CONS_REQUIRES(record.lock);

/// What the nodes answered so far does not count any more.
void xfer_clear_marks(xfer_state &record) CONS_REQUIRES(record.lock);

/// The same, and the requests begin anew.
void xfer_forget_answers(xfer_state &record) CONS_REQUIRES(record.lock);

inline bool xfer_is_for(const xfer_state &record, uint32_t id, uint8_t sender) CONS_REQUIRES(record.lock)
{
  return record.id == id && record.sender == sender;
}

/// What the pull-thread sees of decisions that arrive. Monotonic times.
struct quiet_watch {
  uint64_t received = 0;   // the count
  int64_t since_us = 0;    // it has not changed since then
  int64_t looked_us = 0;   // seen last
  int64_t request_us = 0;  // the last request after which it was quiet for a moment
};

/// What the pull-thread waits for, while its record serves an OFFER: what it takes up again.
struct lent_record {
  id_entry entry;  // zero: not lent
  uint32_t requests = 0;
  int64_t request_us = 0;
  int64_t since_us = 0;  // lent then, monotonic
  uint32_t lacking = 0;  // bit n - 1: node n has answered the last request with MISSING
};

void *paxos_data_pull_thread(void *);
void *paxos_data_deliver_thread(void *);

struct paxos_data_state {
  std::atomic<bool> initialised{false};
  std::atomic<bool> stopped{true};  // the threads must end, every wait must return
  paxos_data_callbacks callbacks;   // set while nothing runs
  entry_gate recv_gate{false};

  xfer_state offer_xfer{lock_rank::leaf};
  xfer_state pull_xfer{lock_rank::pull_record};

  // The latest decided log, and how far it is queued. pull_pos changes only with both locks held.
  id_batch pull_batch CONS_GUARDED_BY(pull_xfer.lock);
  uint32_t pull_pos CONS_GUARDED_BY(pull_xfer.lock) = 0;
  bool switch_pending CONS_GUARDED_BY(pull_xfer.lock) = true;  // the queue still mirrors another log
  id_entry last_queued CONS_GUARDED_BY(pull_xfer.lock);        // since start; zero = nothing
  quiet_watch quiet CONS_GUARDED_BY(pull_xfer.lock);
  bool needs_base CONS_GUARDED_BY(pull_xfer.lock) = false;  // not all before the new log was delivered here
  bool has_hole CONS_GUARDED_BY(pull_xfer.lock) = false;    // an entry was skipped, and no snapshot has come since
  lent_record lent CONS_GUARDED_BY(pull_xfer.lock);

  // What is ready to be delivered: the first pull_pos entries of pull_batch, unless a switch is pending.
  cons_mutex deliver_queue_lock{lock_rank::deliver_queue};
  cons_cond deliver_queue_cond;  // an entry was queued, the queue was found empty, or stop
  id_batch deliver_batch CONS_GUARDED_BY(deliver_queue_lock);
  uint32_t deliver_pos CONS_GUARDED_BY(deliver_queue_lock) = 0;
  uint32_t handed_number CONS_GUARDED_BY(deliver_queue_lock) = 0;   // of the last hand-over
  uint32_t still_to_queue CONS_GUARDED_BY(deliver_queue_lock) = 0;  // entries of pull_batch from pull_pos on
  std::atomic<uint32_t> handled{0};

  // Touched by start and stop only.
  library_thread deliver_thread{"deliver-thread", paxos_data_deliver_thread};
  library_thread pull_thread{"pull-thread", paxos_data_pull_thread};
};
inline constinit paxos_data_state paxos_data;

/// Notes in `handled` that nothing of the last hand-over is left. Returns true when that has just become so: then
/// the caller tells the layer above (callbacks.handled).
bool paxos_data_note_handled() CONS_REQUIRES(paxos_data.deliver_queue_lock);

/// Lends the pull record, whose requests nobody has answered for a while, to the OFFER of another payload. False: the
/// record is in use. Otherwise it is free, and the pull-thread takes it back when its next request is due.
bool paxos_data_lend_record() CONS_REQUIRES(paxos_data.pull_xfer.lock);

/// Node `from` (0: it does not say) has sent OFFER, DATA or COMPLETE. If the last loss was judged without it, the next
/// needs all patience again; what the record was lent from is not lacking if it is that.
void paxos_data_note_holder(uint8_t from, uint32_t id, uint8_t sender) CONS_REQUIRES(paxos_data.pull_xfer.lock);

/// Sends the REQs for what is missing of (id, sender), unless DATA of the transfer is still flowing: everything, which
/// claims the record, or the missing runs once the size is known. Returns whether it asked.
bool paxos_data_request_missing(xfer_state &record, uint32_t id, uint8_t sender) CONS_REQUIRES(record.lock);
