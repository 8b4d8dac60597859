#include "ordered_broadcast/paxos_state.h"

#include "payload_dissemination/paxos_data.h"
#include "service/service_state.h"

uint32_t paxos_own_index()
{
  return cons_service.node_id - 1;
}

void paxos_idle_request()
{
  ++paxos.idle_waiters;
  paxos.propose_cond.signal();
  paxos_data_wake_state_offer();
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
