#include "cluster/peers.h"

#include <algorithm>

namespace kesh
{

namespace
{
constexpr size_t SESSIONS_KEPT = 4;
constexpr int64_t DOUBLE_MS = 5000;
}  // namespace

void peers::session_log::note(uint32_t session, uint32_t decision)
{
  entry now{session, decision};
  const auto found = std::find_if(kept.begin(), kept.end(), [&](const entry &one) { return one.session == session; });
  if (found != kept.end()) {
    now.decision = std::max(now.decision, found->decision);
    kept.erase(found);
  }
  kept.insert(kept.begin(), now);
  if (kept.size() > SESSIONS_KEPT) {
    older = std::max(older, kept.back().decision);
    kept.pop_back();
  }
}

/// The greatest decision of all sessions but the latest.
uint32_t peers::session_log::before() const
{
  uint32_t greatest = older;
  for (size_t i = 1; i < kept.size(); ++i) {
    greatest = std::max(greatest, kept[i].decision);
  }
  return greatest;
}

difference difference_of(const hello &said, const hello_settings &own)
{
  const bool is_same_life = said.cluster.generation == own.cluster.generation;
  // Another generation has other addresses.
  if (said.cluster.name != own.cluster.name || (is_same_life && said.cluster.first_mac != own.cluster.first_mac)) {
    return difference::cluster;
  }
  if (said.node_count != own.node_count) {
    return difference::node_count;
  }
  if (said.state_max != own.state_max) {
    return difference::state_max;
  }
  if (!is_same_life) {
    return difference::generation;
  }
  return said.build == own.build ? difference::none : difference::build;
}

hello_kind peers::kind_of(const hello &said) const
{
  const difference differs = difference_of(said, own_);
  const bool is_same_life = differs == difference::none || differs == difference::build;
  if (!is_same_life && differs != difference::generation) {
    return hello_kind::other_cluster;
  }
  if (said.node == own_.node && !is_same_life) {
    return hello_kind::other_cluster;  // the machine that this one replaced in a reform takes part in nothing here
  }
  if (said.node == own_.node) {
    return said.session == own_.session ? hello_kind::own : hello_kind::own_number;
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
    note_double(said, now_ms);
    return kind;
  case hello_kind::member:
  case hello_kind::other_generation:
    break;
  }
  auto &last = last_[said.node - 1];
  const bool is_beside_member =
      last && last->last.cluster.generation == own_.cluster.generation && now_ms - last->heard_ms <= int64_t{LIVE_MS};
  if (kind == hello_kind::other_generation && is_beside_member) {
    return kind;  // the machine that was replaced in a reform, say
  }
  last = {said, now_ms};
  if (kind == hello_kind::member) {
    sessions_[said.node - 1].note(said.session, said.decision);
    has_echoed_[said.node - 1] |= is_echo(said);
    for (const heard_line &one : said.heard) {
      if (one.node == own_.node && one.session == own_.session && one.before > remembered_of_us_.decision) {
        remembered_of_us_ = {said.node, one.before};
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
      all.push_back({node, static_cast<uint32_t>(age_ms), one->last.session, sessions_[node - 1].before()});
    }
  }
  return all;
}

void peers::note_double(const hello &said, int64_t now_ms)
{
  ++own_number_count_;
  if (!double_ || double_->session != said.session || now_ms - double_->last_ms >= DOUBLE_MS) {
    double_ = {said.session, now_ms, now_ms};
  }
  double_->last_ms = now_ms;
}

bool peers::has_double(int64_t now_ms) const
{
  return double_ && now_ms - double_->last_ms < DOUBLE_MS;
}

bool peers::has_lasting_double(int64_t now_ms) const
{
  return has_double(now_ms) && double_->last_ms - double_->first_ms >= DOUBLE_MS;
}

std::optional<uint32_t> peers::echo_age_ms(const hello &said) const
{
  const auto found = std::find_if(said.heard.begin(), said.heard.end(), [this](const heard_line &one) {
    return one.node == own_.node && one.session == own_.session;
  });
  return found == said.heard.end() ? std::nullopt : std::optional(found->age_ms);
}

uint32_t peers::echo_count() const
{
  return static_cast<uint32_t>(std::count(has_echoed_.begin(), has_echoed_.end(), true));
}

std::optional<lost_decisions> peers::disk_went_back(uint32_t decision_at_start) const
{
  return remembered_of_us_.decision > decision_at_start ? std::optional(remembered_of_us_) : std::nullopt;
}

}  // namespace kesh
