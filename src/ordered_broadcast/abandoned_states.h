/// Abandoned snapshots: this node's proposals of them failed. Another leader may have read one back and may decide it.
/// Once its number is decided and the log does not name it, no node will ask for it any more.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"

class abandoned_states
{
public:
  /// Keeps the newest eight. A snapshot that falls out stays in the payload table.
  void add(id_entry entry, uint32_t number);
  /// Removes the snapshots that no node will ask for from the payload table.
  void release_superseded() CONS_REQUIRES(paxos.propose_lock);

private:
  struct state {
    id_entry entry;
    uint32_t number = 0;
  };
  static constexpr size_t STATES_MAX = 8;
  state states_[STATES_MAX];
  size_t next_ = 0;
};
