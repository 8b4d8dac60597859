#include "ordered_broadcast/lagging_nodes.h"

#include "common/monotonic_clock.h"
#include "ordered_broadcast/decided_log.h"
#include "payload_dissemination/payload_table.h"
#include "service/identity.h"
#include "service/service_state.h"

namespace
{

struct lagging_nodes {
  /// Per node: before it no newcomer is helped again, monotonic.
  int64_t next_help_us[NODES_MAX] CONS_GUARDED_BY(paxos.propose_lock) = {};
  /// What the other nodes asked for lately and did not get: (sender << 32) | id, 0 = nothing.
  std::atomic<uint64_t> asked_for[NODES_MAX] = {};
};
constinit lagging_nodes lagging;

bool is_lacking(uint64_t asked)
{
  return asked != 0 && paxos_data_has_entry(static_cast<uint32_t>(asked), static_cast<uint8_t>(asked >> 32)) == 0;
}

}  // namespace

void paxos_help_newcomer(uint32_t node_addr)
{
  constexpr int64_t PAUSE_US = 1000000;
  const uint32_t node_id = node_id_of_addr(node_addr);
  const int64_t now_us = monotonic_us();
  cons_lock lock(paxos.propose_lock);
  if (paxos.stopped || paxos_log.number() == 0 || !is_member(node_id) || node_id == cons_service.node_id ||
      now_us < lagging.next_help_us[node_id - 1]) {
    return;
  }
  lagging.next_help_us[node_id - 1] = now_us + PAUSE_US;
  paxos_log.send_to(node_addr);
}

void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node)
{
  if (!is_member(asking_node) || asking_node == cons_service.node_id) {
    return;
  }
  std::atomic<uint64_t> &asked = lagging.asked_for[asking_node - 1];
  if (!is_lacking(asked)) {
    asked = uint64_t{sender} << 32 | msg_id;
  }
}

void paxos_help_askers()
{
  for (uint32_t node_id = 1; node_id <= NODES_MAX; ++node_id) {
    if (!is_lacking(lagging.asked_for[node_id - 1].exchange(0))) {
      continue;
    }
    cons_lock lock(paxos.propose_lock);
    if (!paxos.stopped && paxos_log.number() != 0) {
      paxos_log.send_to(node_addr_of_id(node_id));
    }
  }
}
