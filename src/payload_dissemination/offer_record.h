/// A payload that this node offers: which nodes hold it already. One record for the calls of vx_cons_distribute, which
/// queue for it, and one for a new state, which never waits behind them.
#pragma once

#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"

inline constexpr uint8_t XFER_NODE_HAS_IT = 3;

struct offer_record {
  cons_mutex lock{lock_rank::leaf};
  cons_cond changed_cond;                // a node holds it, the record was freed, or stop
  id_entry entry CONS_GUARDED_BY(lock);  // zero: the record is free
  uint8_t node_state[NODES_MAX] CONS_GUARDED_BY(lock) = {};
};

/// COMPLETE: marks the node (0: it does not say which) if the record offers that payload, and wakes who waits.
void offer_record_complete(offer_record &record, id_entry entry, uint8_t from) CONS_EXCLUDES(record.lock);

/// Frees the record and wakes who waits for it.
void offer_record_free(offer_record &record) CONS_REQUIRES(record.lock);
