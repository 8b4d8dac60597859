#include "ordered_broadcast/abandoned_states.h"

#include "ordered_broadcast/decided_log.h"
#include "payload_dissemination/payload_table.h"

void abandoned_states::add(id_entry entry, uint32_t number)
{
  states_[next_] = {.entry = entry, .number = number};
  next_ = (next_ + 1) % STATES_MAX;
}

void abandoned_states::release_superseded()
{
  for (state &s : states_) {
    if (s.number == 0 || paxos_log.number() < s.number) {
      continue;
    }
    if (id_batch_find(&paxos_log.batch(), s.entry.msg_id, s.entry.sender) < 0) {
      paxos_data_unhash_entry(s.entry.msg_id, s.entry.sender);
    }
    s = {};
  }
}
