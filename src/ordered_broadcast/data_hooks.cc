#include "ordered_broadcast/data_hooks.h"

void paxos_register_data_hooks(uint32_t type, vx_cons_get_state_hook get_state, vx_cons_deliver_hook deliver)
{
  if (type >= CONS_DATA_TYPES) {
    return;
  }
  cons_lock lock(data_hooks.data_hooks_lock);
  data_hooks.slots[type].get_state = get_state;
  data_hooks.slots[type].deliver = deliver;
}

void data_hooks_clear()
{
  cons_lock lock(data_hooks.data_hooks_lock);
  for (data_hook_slot &slot : data_hooks.slots) {
    slot.get_state = nullptr;
    slot.deliver = nullptr;
  }
}
