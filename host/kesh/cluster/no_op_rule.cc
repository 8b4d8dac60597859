#include "cluster/no_op_rule.h"

#include <algorithm>

namespace kesh
{

bool no_op_rule::wants(const cluster_view &view, const own_facts &own, int64_t now_ms)
{
  const auto is_live = [](const peer_view &one) { return one.is_member && one.age_ms <= LIVE_MS; };
  uint32_t top = own.top;
  for (const peer_view &one : view.peers) {
    top = is_live(one) ? std::max(top, one.last.top) : top;
  }
  bool is_needed = false;
  for (place &one : places_) {
    one.is_in_need = false;
  }
  for (const peer_view &one : view.peers) {
    place &at = places_[one.last.node - 1];
    at.is_in_need = is_live(one) && is_in_need(one, top, own, now_ms);
    if (!at.is_in_need || now_ms - at.last_ms >= AGAIN_MS) {
      at.no_ops = 0;
    }
    if (at.is_in_need && at.no_ops < NO_OPS_MAX) {
      at.last_ms = now_ms;
      is_needed = true;
    }
  }
  return is_needed;
}

void no_op_rule::ordered()
{
  for (place &one : places_) {
    one.no_ops += one.is_in_need ? 1 : 0;
  }
}

bool no_op_rule::is_in_need(const peer_view &peer, uint32_t top, const own_facts &own, int64_t now_ms)
{
  const hello &said = peer.last;
  place &last = places_[said.node - 1];
  if (last.decision != said.decision || last.n != said.position.n) {
    last.decision = said.decision;
    last.n = said.position.n;
    last.since_ms = now_ms;
  }
  if (said.role == node_role::stopped || said.role == node_role::isolated) {
    return false;
  }
  const bool is_at_end = said.handled || now_ms - last.since_ms >= STUCK_MS;
  // Of a reformed cluster it gets a store with the first log.
  const bool needs_decision = top > own.decision || (own.stands == standing::reformed && own.decision == 0);
  return (!said.position.complete && is_at_end) || (said.stands == standing::is_new && needs_decision);
}

}  // namespace kesh
