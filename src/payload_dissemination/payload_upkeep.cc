#include "payload_dissemination/payload_upkeep.h"

void payload_upkeep_collect()
{
  if (payload_upkeep.is_on) {
    cons_lock lock(payload_upkeep.lock);
    payload_upkeep.has_garbage = true;
    payload_upkeep.cond.signal();
  }
}
