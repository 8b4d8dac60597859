/// The transfer by which this node fetches a payload; there is one at a time. The pull-thread claims it for the entry
/// that the log needs next, or an OFFER claims it. Pieces are assembled in place.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

struct pull_record {
  cons_mutex lock{lock_rank::pull_record};
  cons_cond changed_cond;  // an answer arrived, a transfer ended, a decision was handed over, or stop
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
  id_entry damaged CONS_GUARDED_BY(lock);         // arrived damaged: not requested before damaged_until_us
  int64_t damaged_until_us CONS_GUARDED_BY(lock) = 0;
};

/// A DATA piece with a valid place in a payload of `total` bytes.
struct data_piece {
  uint32_t offset;
  uint32_t total;
  uint32_t length;
  const uint8_t *bytes;  // encrypted
};

/// Ends the transfer and frees the record.
void pull_record_reset(pull_record &record) CONS_REQUIRES(record.lock);

/// Claims the record for an entry that the log needs. If DATA of another payload arrived within the last second, only
/// marks the record as awaited by the pull-thread. Returns whether the record is now for the entry.
bool pull_record_claim_for_log(pull_record &record, id_entry entry) CONS_REQUIRES(record.lock);

/// Claims the record for an OFFER if it is free, if another OFFER claimed it and no DATA came for three seconds, or if
/// the pull-thread waits in vain for an answer to its request. Returns whether the record is now for the entry.
bool pull_record_claim_for_offer(pull_record &record, id_entry entry) CONS_REQUIRES(record.lock);

/// Whether no DATA flows and the payload has not just arrived damaged.
bool pull_record_may_request(const pull_record &record) CONS_REQUIRES(record.lock);

/// If pull_record_may_request, sends the REQs for the missing pieces of the record's payload: one for everything, or
/// one per missing run once the size is known. A REQ that cannot be sent is tried again with the next request.
void pull_record_request(pull_record &record) CONS_REQUIRES(record.lock);

/// Returns whether the piece belongs to the record's payload. The first piece sets the payload's size. If that size was
/// wrong no other piece would ever fit, so after a second without a fitting piece another size begins the assembly
/// anew.
bool pull_record_accepts(pull_record &record, id_entry entry, const data_piece &piece) CONS_REQUIRES(record.lock);

/// Stores an accepted piece. With the last piece it frees the record and returns the whole payload, which the caller
/// owns; else returns null. A payload whose header does not match its size is damaged and is dropped.
payload_buf *pull_record_add(pull_record &record, const data_piece &piece) CONS_REQUIRES(record.lock);
