/// The one transfer by which this node fetches a payload: claimed by the pull-thread for what the log needs next, or by
/// an OFFER. Pieces are assembled in place.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

struct pull_record {
  cons_mutex lock{lock_rank::pull_record};
  cons_cond changed_cond;  // an answer arrived, a transfer ended, a batch was handed over, or stop
  id_entry entry CONS_GUARDED_BY(lock);
  bool is_pulled CONS_GUARDED_BY(lock) = false;        // claimed by the pull-thread, not by an OFFER
  uint8_t *buffer CONS_GUARDED_BY(lock) = nullptr;     // owned; `total` bytes, from the first DATA piece on
  uint32_t total CONS_GUARDED_BY(lock) = 0;            // size of the payload
  uint8_t *piece_map CONS_GUARDED_BY(lock) = nullptr;  // owned; one byte per piece, 1 = received
  uint32_t pieces CONS_GUARDED_BY(lock) = 0;
  uint32_t pieces_missing CONS_GUARDED_BY(lock) = 0;
  timeval last CONS_GUARDED_BY(lock) = {};         // last DATA piece, wall clock; zero = none
  int64_t data_us CONS_GUARDED_BY(lock) = 0;       // last DATA piece, monotonic; 0 = none
  int64_t claimed_us CONS_GUARDED_BY(lock) = 0;    // monotonic
  int64_t requested_us CONS_GUARDED_BY(lock) = 0;  // last REQ, monotonic; 0 = none

  // These outlive a transfer.
  bool is_awaited CONS_GUARDED_BY(lock) = false;  // the pull-thread waits for the record: no OFFER may claim it
  id_entry damaged CONS_GUARDED_BY(lock);         // arrived damaged: not asked for again until then
  int64_t damaged_until_us CONS_GUARDED_BY(lock) = 0;
};

/// A DATA piece whose place in a payload of `total` bytes is sound.
struct data_piece {
  uint32_t offset;
  uint32_t total;
  uint32_t length;
  const uint8_t *bytes;  // encrypted
};

/// Ends the transfer: the record is free.
void pull_record_reset(pull_record &record) CONS_REQUIRES(record.lock);

/// Claims the record for what the log needs, unless it fetches another payload whose DATA flowed within a second:
/// then it is kept for the pull-thread. Returns whether the record is for the entry.
bool pull_record_claim_for_log(pull_record &record, id_entry entry) CONS_REQUIRES(record.lock);

/// Claims the record for an OFFER if it is free, if it was claimed by another OFFER of which no DATA came for three
/// seconds, or if the pull-thread waits in vain for an answer to its request. Returns whether the record is for the
/// entry.
bool pull_record_claim_for_offer(pull_record &record, id_entry entry) CONS_REQUIRES(record.lock);

/// Whether its DATA is silent, and it has not just arrived damaged.
bool pull_record_may_request(const pull_record &record) CONS_REQUIRES(record.lock);

/// Sends the REQs for what is missing of the record's payload, if it may: everything, or the missing runs once the size
/// is known. What cannot be sent is tried again with the next request.
void pull_record_request(pull_record &record) CONS_REQUIRES(record.lock);

/// Whether the piece fits what the record fetches. The first piece says how large the payload is. If that was wrong no
/// other piece ever fits: after a second without one that did, another size begins the assembly anew.
bool pull_record_accepts(pull_record &record, id_entry entry, const data_piece &piece) CONS_REQUIRES(record.lock);

/// Stores an accepted piece. Returns the whole payload with the last piece, for the caller to own, with
/// the record free; else null. What does not carry its own size was damaged: it is dropped.
payload_buf *pull_record_add(pull_record &record, const data_piece &piece) CONS_REQUIRES(record.lock);
