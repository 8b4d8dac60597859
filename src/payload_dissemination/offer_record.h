/// A payload that this node offers, and the nodes that hold it already. One record serves the calls of
/// vx_cons_distribute, which queue for it. Another serves a new snapshot, which so never waits behind them.
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

/// Handles a COMPLETE. If the record offers that payload, marks node `from` (0 = unknown, marks none) and wakes the
/// waiters.
void offer_record_complete(offer_record &record, id_entry entry, uint8_t from) CONS_EXCLUDES(record.lock);

/// Frees the record and wakes the threads that wait for it.
void offer_record_free(offer_record &record) CONS_REQUIRES(record.lock);
