/// States that this node proposed in vain. Another leader may have read one in the register and decide it; once its
/// number is decided and the log does not name it, nobody will ask for it any more.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"

class abandoned_states
{
public:
  /// The oldest of too many stay stored.
  void add(id_entry entry, uint32_t number);
  /// Takes out of the payload table what nobody will ask for.
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
