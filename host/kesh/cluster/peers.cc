#include "cluster/peers.h"

#include <algorithm>

namespace kesh
{

hello_kind peers::kind_of(const hello &said) const
{
  // Another generation has other addresses.
  const bool is_same_life = said.cluster.generation == cluster_.generation;
  if (said.cluster.name != cluster_.name || (is_same_life && said.cluster.first_mac != cluster_.first_mac)) {
    return hello_kind::other_cluster;
  }
  if (said.node == node_) {
    return said.session == session_ ? hello_kind::own : hello_kind::own_number;
  }
  const auto &before = last_[said.node - 1];
  if (before && before->last.session == said.session && said.number <= before->last.number) {
    return hello_kind::old;
  }
  return is_same_life ? hello_kind::member : hello_kind::other_generation;
}

hello_kind peers::heard(const hello &said, int64_t now_ms)
{
  const hello_kind kind = kind_of(said);
  switch (kind) {
  case hello_kind::own:
  case hello_kind::old:
    return kind;
  case hello_kind::other_cluster:
    stranger_ = {said, now_ms};
    return kind;
  case hello_kind::own_number:
    ++own_number_count_;
    return kind;
  case hello_kind::member:
  case hello_kind::other_generation:
    break;
  }
  last_[said.node - 1] = {said, now_ms};
  if (kind == hello_kind::member) {
    uint32_t &decision = decision_[said.node - 1];
    decision = std::max(decision, said.decision);
    for (const heard_line &one : said.heard) {
      if (one.node == node_ && one.decision > remembered_of_us_.decision) {
        remembered_of_us_ = {said.node, one.decision};
      }
    }
  }
  return kind;
}

const heard_hello *peers::last_of(uint32_t node) const
{
  const auto &last = last_[node - 1];
  return last ? &*last : nullptr;
}

std::vector<heard_line> peers::lines(int64_t now_ms) const
{
  std::vector<heard_line> all;
  for (uint32_t node = 1; node <= HELLO_NODES_MAX; ++node) {
    if (const heard_hello *one = last_of(node)) {
      const int64_t age_ms = std::clamp<int64_t>(now_ms - one->heard_ms, 0, UINT32_MAX);
      all.push_back({node, static_cast<uint32_t>(age_ms), decision_[node - 1]});
    }
  }
  return all;
}

std::optional<lost_decisions> peers::disk_went_back(uint32_t own_decision) const
{
  return remembered_of_us_.decision > own_decision ? std::optional(remembered_of_us_) : std::nullopt;
}

}  // namespace kesh
