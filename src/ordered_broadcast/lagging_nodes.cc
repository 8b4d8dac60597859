#include "ordered_broadcast/lagging_nodes.h"

#include <atomic>

#include "common/monotonic_clock.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/watch_pause.h"
#include "payload_dissemination/payload_table.h"
#include "service/identity.h"
#include "service/service_state.h"

namespace
{

constexpr int64_t NEWCOMER_PAUSE_US = 1000000;
constexpr int64_t IN_NEED_US = 3000000;

struct asker {
  std::atomic<uint64_t> wanted{0};           // (sender << 32) | id of a payload that it asked for in vain; 0 = none
  std::atomic<int64_t> in_need_until_us{0};  // until then it is told at once: several payloads in a row may be lost
};

struct lagging_nodes {
  int64_t next_help_us[NODES_MAX] CONS_GUARDED_BY(paxos.propose_lock) = {};  // per newcomer
  asker askers[NODES_MAX];
  std::atomic<uint32_t> uninformed{0};
  std::atomic<bool> is_urgent{false};
};
constinit lagging_nodes lagging;

bool is_lacking(uint64_t wanted)
{
  return wanted != 0 && paxos_data_has_entry(static_cast<uint32_t>(wanted), static_cast<uint8_t>(wanted >> 32)) == 0;
}

void tell(uint32_t node_id) CONS_REQUIRES(paxos.propose_lock)
{
  if (!paxos.stopped && paxos_log.number() != 0) {
    paxos_log.send_to(node_addr_of_id(node_id));
  }
}

}  // namespace

void paxos_help_newcomer(uint32_t node_addr)
{
  const uint32_t node_id = node_id_of_addr(node_addr);
  const int64_t now_us = monotonic_us();
  cons_lock lock(paxos.propose_lock);
  if (paxos.stopped || paxos_log.number() == 0 || !is_member(node_id) || node_id == cons_service.node_id ||
      now_us < lagging.next_help_us[node_id - 1]) {
    return;
  }
  lagging.next_help_us[node_id - 1] = now_us + NEWCOMER_PAUSE_US;
  paxos_log.send_to(node_addr);
}

void paxos_note_asker(uint32_t msg_id, uint8_t sender, uint8_t asking_node)
{
  if (!is_member(asking_node) || asking_node == cons_service.node_id) {
    return;
  }
  asker &asking = lagging.askers[asking_node - 1];
  if (!is_lacking(asking.wanted)) {
    asking.wanted = uint64_t{sender} << 32 | msg_id;
  }
  if (monotonic_us() < asking.in_need_until_us) {
    lagging.is_urgent = true;
    paxos_leader_watch_wake();
  }
}

void paxos_note_uninformed(uint32_t nodes)
{
  lagging.uninformed |= nodes;
}

bool paxos_is_help_urgent()
{
  return lagging.is_urgent;
}

void paxos_help_askers()
{
  lagging.is_urgent = false;
  const uint32_t uninformed = lagging.uninformed.exchange(0);
  for (uint32_t node_id = 1; node_id <= NODES_MAX; ++node_id) {
    asker &asking = lagging.askers[node_id - 1];
    const bool is_in_vain = is_lacking(asking.wanted.exchange(0));
    if (is_in_vain) {
      asking.in_need_until_us = monotonic_us() + IN_NEED_US;
    }
    if (is_in_vain || (uninformed >> (node_id - 1) & 1) != 0) {
      tell(node_id);
    }
  }
}
