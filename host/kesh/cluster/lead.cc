#include "cluster/lead.h"

#include <array>

namespace kesh
{

namespace
{
constexpr std::array<std::string_view, 5> WORDS = {"unknown", "MASTER", "BACKUP", "FAULT", "STOP"};

/// But for what keepalived says, and for room.
lead_answer is_fit(const lead_facts &node)
{
  if (!node.stays_out.empty()) {
    return {false, node.stays_out};
  }
  if (!node.is_started) {
    return {false, "it is not started"};
  }
  if (!node.not_yet.empty()) {
    return {false, node.not_yet};
  }
  if (!node.is_complete) {
    return {false, "its store is incomplete and waits for the next state"};
  }
  if (node.is_barred) {
    return {false, "a quorum of the nodes has another history"};
  }
  return {true, {}};
}

}  // namespace

std::optional<vrrp_state> vrrp_state_of(std::string_view word)
{
  for (size_t i = 1; i < WORDS.size(); ++i) {
    if (word == WORDS[i]) {
      return static_cast<vrrp_state>(i);
    }
  }
  return std::nullopt;
}

std::string_view vrrp_state_name(vrrp_state state)
{
  return WORDS[static_cast<size_t>(state)];
}

lead_answer is_eligible(const lead_facts &node)
{
  if (lead_answer fit = is_fit(node); !fit.yes || node.has_room || node.substitute == 0) {
    return fit;
  }
  return {false, "its disk has no room for payloads, or had none a moment ago, and node " +
                     std::to_string(node.substitute) + " could lead"};
}

lead_answer may_lead(const lead_facts &node)
{
  if (lead_answer fit = is_fit(node); !fit.yes) {
    return fit;
  }
  if (node.vrrp == vrrp_state::unknown) {
    return {false, "keepalived has said nothing yet"};
  }
  if (node.vrrp != vrrp_state::master) {
    return {false, "keepalived does not say MASTER"};
  }
  return {true, {}};
}

bool could_lead(const lead_facts &node)
{
  const bool is_chosen_or_waits = node.vrrp == vrrp_state::master || node.vrrp == vrrp_state::backup;
  return is_fit(node).yes && node.has_room && is_chosen_or_waits;
}

}  // namespace kesh
