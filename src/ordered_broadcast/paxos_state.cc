#include "ordered_broadcast/paxos_state.h"

#include <algorithm>

#include "service/service_state.h"

uint32_t paxos_own_index()
{
  return cons_service.node_id - 1;
}

void paxos_raise_done_ids(const id_batch &batch)
{
  for (uint32_t i = 1; i < id_batch_count(batch); ++i) {
    const id_entry entry = id_batch_entry(batch, i);
    uint32_t &done_id = paxos.done_id[entry.sender - 1];
    done_id = std::max(done_id, entry.msg_id);
  }
}

void paxos_idle_request()
{
  ++paxos.idle_waiters;
  paxos.propose_cond.signal();
}

void paxos_wait_proposer_idle()
{
  while (!paxos.stopped && paxos.proposer_running && !paxos.proposer_idle) {
    paxos.propose_idle_cond.wait(paxos.propose_lock);
  }
}

void paxos_idle_release()
{
  if (--paxos.idle_waiters == 0) {
    paxos.propose_cond.signal();
  }
}
