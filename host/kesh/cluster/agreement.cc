#include "cluster/agreement.h"

#include <algorithm>
#include <bit>

namespace kesh
{

void agreement::own(const told_position &now)
{
  if (own_ && own_->store != now.store) {
    barred_.reset();
    for (peer &one : peers_) {
      one.verdict = {};
    }
  }
  own_ = now;
  for (peer &one : peers_) {
    compare(one);
  }
  look_for_quorum();
}

void agreement::heard(uint32_t node, const told_position &said)
{
  if (node == 0 || node > node_count_) {
    return;
  }
  peer &from = peers_[node - 1];
  if (from.said && from.said->store != said.store) {
    from = {};
    if (barred_) {
      barred_->nodes &= ~(1u << (node - 1));
    }
    if (barred_ && static_cast<uint32_t>(std::popcount(barred_->nodes)) <= node_count_ / 2) {
      barred_.reset();
    }
  }
  from.said = said;
  compare(from);
  look_for_quorum();
}

agreement_verdict agreement::of(uint32_t node) const
{
  const peer &one = peers_[node - 1];
  const bool is_comparable = own_ && own_->complete && one.said && one.said->complete;
  return is_comparable ? one.verdict : agreement_verdict();
}

std::vector<agreement::statement> agreement::statements_of(const peer &from)
{
  std::vector<statement> all;
  if (from.said && from.said->complete) {
    all.push_back({from.said->n, from.said->hash});
    if (from.said->checkpoint_hash) {
      all.push_back({checkpoint_of(from.said->n), *from.said->checkpoint_hash});
    }
  }
  return all;
}

std::optional<chain_hash> agreement::own_hash_at(uint64_t n) const
{
  if (!own_ || !own_->complete || n > own_->n) {
    return std::nullopt;
  }
  if (n == own_->n) {
    return own_->hash;
  }
  return n == checkpoint_of(own_->n) && own_->checkpoint_hash ? own_->checkpoint_hash : own_hash_(*own_, n);
}

void agreement::compare(peer &with)
{
  std::vector<statement> all = statements_of(with);
  if (with.ahead && own_ && with.ahead->n <= own_->n) {
    all.push_back(*with.ahead);
    with.ahead.reset();
  }
  if (!with.ahead && !all.empty() && own_ && all.front().n > own_->n) {
    with.ahead = all.front();
  }
  agreement_verdict &verdict = with.verdict;
  for (const statement &one : all) {
    const auto hash = own_hash_at(one.n);
    if (!hash) {
      continue;
    }
    const bool was_diverged = verdict.kind == agreement_kind::diverged;
    if (*hash != one.hash) {
      verdict = {agreement_kind::diverged, was_diverged ? std::min(verdict.n, one.n) : one.n};
    } else if (!was_diverged) {
      verdict = {agreement_kind::agrees, std::max(verdict.n, one.n)};
    }
  }
}

// Once outvoted, it stays so while its witnesses keep their stores, although they are seldom all at one n.
void agreement::look_for_quorum()
{
  const auto diverged = std::count_if(peers_.begin(), peers_.end(),
                                      [](const peer &one) { return one.verdict.kind == agreement_kind::diverged; });
  if (barred_ || diverged <= node_count_ / 2) {
    return;
  }
  std::array<std::vector<statement>, HELLO_NODES_MAX> all;
  std::transform(peers_.begin(), peers_.end(), all.begin(), statements_of);
  for (const auto &of_one : all) {
    for (const statement &claim : of_one) {
      const auto hash = own_hash_at(claim.n);
      if (!hash || *hash == claim.hash) {
        continue;
      }
      outvoted found{claim.n, claim.hash, 0};
      for (uint32_t index = 0; index < HELLO_NODES_MAX; ++index) {
        const bool says_it = std::find(all[index].begin(), all[index].end(), claim) != all[index].end();
        found.nodes |= says_it ? 1u << index : 0;
      }
      if (static_cast<uint32_t>(std::popcount(found.nodes)) > node_count_ / 2) {
        barred_ = found;
        return;
      }
    }
  }
}

}  // namespace kesh
