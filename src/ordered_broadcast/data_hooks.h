/// The host's hooks per data type. They are written under data_hooks_lock, which is also held while a deliver hook
/// runs. The propose-thread may not take that lock and reads the get_state hooks without it.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/cons_mutex.h"
#include "vx_cons.h"

inline constexpr uint32_t CONS_DATA_TYPES = VX_CONS_DATA_TYPES;

struct data_hook_slot {
  std::atomic<vx_cons_get_state_hook> get_state{nullptr};
  std::atomic<vx_cons_deliver_hook> deliver{nullptr};
};

struct data_hook_table {
  cons_mutex data_hooks_lock{lock_rank::data_hooks};
  data_hook_slot slots[CONS_DATA_TYPES];
};
inline constinit data_hook_table data_hooks;

/// Types above 3 are ignored. Null removes a hook. Waits for a deliver hook that runs.
void paxos_register_data_hooks(uint32_t type, vx_cons_get_state_hook get_state, vx_cons_deliver_hook deliver);

void data_hooks_clear();
