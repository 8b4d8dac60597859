/// Who may lead. Pure: what the node knows of itself goes in, the answer and its reason come out.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kesh
{

/// What keepalived said last.
enum class vrrp_state { unknown, master, backup, fault, stop };
/// Of the word that keepalived gives its scripts; nothing for any other.
std::optional<vrrp_state> vrrp_state_of(std::string_view word);
std::string_view vrrp_state_name(vrrp_state state);

struct lead_facts {
  vrrp_state vrrp = vrrp_state::unknown;
  bool is_started = false;   ///< the library runs
  bool is_complete = false;  ///< no payload was skipped
  bool is_barred = false;    ///< a quorum has another history
  std::string stays_out{};   ///< why this node must take no part at all; empty: it may
  std::string not_yet{};     ///< why this node, which is new to the cluster or has just begun, may not; empty: it may
  bool has_room = true;      ///< its disk takes payloads, and did so for a while
  uint32_t substitute = 0;   ///< another node that could lead as it is now; 0: none
};

struct lead_answer {
  bool yes = false;
  std::string reason;  ///< empty with yes

  bool operator==(const lead_answer &) const = default;
};

/// Whether keepalived may choose this node. Does not ask whether there is a leader: it would never get one. Without
/// room a node can order nothing but a state; it stays eligible where no other node could do better.
lead_answer is_eligible(const lead_facts &node);
/// Whether the node state file may say MASTER. It may also without room: keepalived has chosen it, perhaps for want of
/// another one.
lead_answer may_lead(const lead_facts &node);
/// Whether it would lead if keepalived chose it, which may do so, and order what comes.
bool could_lead(const lead_facts &node);

}  // namespace kesh
