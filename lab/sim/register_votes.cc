#include "register_votes.h"

#include <bit>

namespace sim
{

namespace
{

std::string in_round(uint32_t id, uint32_t round, const char *what)
{
  return "register " + std::to_string(id) + ", round " + std::to_string(round) + " " + what;
}

}  // namespace

std::string register_votes::promised(uint32_t id, uint32_t round, uint32_t node)
{
  of(id, round).promised |= 1u << node;
  return "";
}

std::string register_votes::carries(uint32_t id, uint32_t round, std::string_view value)
{
  votes &all = of(id, round);
  if (all.value.empty()) {
    all.value = value;
  }
  return all.value == value ? "" : in_round(id, round, "has two values");
}

std::string register_votes::written(uint32_t id, uint32_t round, std::string_view value)
{
  if (std::string broken = carries(id, round, value); !broken.empty()) {
    return broken;
  }
  if (std::popcount(of(id, round).promised) < quorum_) {
    return in_round(id, round, "is written, and no quorum has promised it");
  }
  return against_choice(id, round, of(id, round).value);
}

std::string register_votes::accepted(uint32_t id, uint32_t round, uint32_t node)
{
  const votes &all = of(id, round);
  of(id, round).accepted |= 1u << node;
  if (std::popcount(all.accepted) < quorum_) {
    return against_choice(id, round, all.value);
  }
  const auto [chosen, is_first] = chosen_.emplace(id, choice{.round = round, .value = all.value});
  if (!is_first) {
    return chosen->second.value == all.value ? "" : in_round(id, round, "is accepted by a quorum, as another value is");
  }
  const uint64_t behind = (uint64_t{id} + 1) << 32;
  for (auto later = votes_.upper_bound(uint64_t{id} << 32 | round); later != votes_.end() && later->first < behind;
       ++later) {
    if (!later->second.value.empty() && later->second.value != all.value) {
      return in_round(id, round, "is accepted by a quorum, and a later round has another value");
    }
  }
  return "";
}

std::string register_votes::against_choice(uint32_t id, uint32_t round, const std::string &value) const
{
  const auto chosen = chosen_.find(id);
  return chosen != chosen_.end() && round > chosen->second.round && value != chosen->second.value
             ? in_round(id, round, "has another value than an earlier one that a quorum has accepted")
             : "";
}

bool register_votes::is_chosen(uint32_t id, std::string_view value) const
{
  const auto chosen = chosen_.find(id);
  return chosen != chosen_.end() && chosen->second.value == value;
}

}  // namespace sim
