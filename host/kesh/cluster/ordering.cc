#include "cluster/ordering.h"

#include <algorithm>

#include "cluster/peers.h"

namespace kesh
{

namespace
{

// A submission takes milliseconds, and in a new log seconds.
constexpr uint64_t LONG_WAIT_S = 5;
// What a leader said that long ago it may have stopped to be: hellos come once a second.
constexpr uint32_t FRESH_MS = 1500;

bool is_live(const ordering_peer &one)
{
  return one.age_ms <= LIVE_MS;
}

bool runs(node_role role)
{
  return role == node_role::follower || role == node_role::leader;
}

/// Whether it answers what a leader asks.
bool takes_part(const ordering_peer &one)
{
  return is_live(one) && runs(one.role) && one.stands != standing::is_new;
}

/// "node 1", "nodes 1 and 3", "nodes 1, 2 and 3".
std::string nodes_text(const std::vector<uint32_t> &nodes)
{
  std::string text = nodes.size() == 1 ? "node " : "nodes ";
  for (size_t i = 0; i < nodes.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == nodes.size() ? " and " : ", ") + std::to_string(nodes[i]);
  }
  return text;
}

const char *difference_text(difference of)
{
  switch (of) {
  case difference::cluster:
    return " is of another cluster";
  case difference::generation:
    return " is of another generation of this cluster";
  case difference::build:
    return " has another build, which this one does not understand";
  case difference::node_count:
    return " is configured for another number of nodes";
  case difference::state_max:
    return " has another state.max";
  case difference::none:
    break;
  }
  return "";
}

template <typename predicate>
std::vector<uint32_t> numbers_of(const std::vector<ordering_peer> &peers, predicate matches)
{
  std::vector<uint32_t> found;
  for (const ordering_peer &one : peers) {
    if (one.differs == difference::none && matches(one)) {
      found.push_back(one.node);
    }
  }
  return found;
}

void judge_own(const ordering_facts &known, ordering &found)
{
  if (!known.stays_out.empty()) {
    found.obstacles.push_back("this node stays out: " + known.stays_out);
  } else if (known.role == node_role::stopped) {
    found.obstacles.emplace_back("this node is stopped");
  } else if (known.role == node_role::isolated) {
    found.obstacles.push_back("this node is isolated" + known.isolated);
  }
  if (!known.no_network.empty()) {
    found.obstacles.push_back("this node has no network: " + known.no_network);
  }
  if (!known.no_room.empty()) {
    found.obstacles.push_back("this node has no room for payloads: " + known.no_room);
  }
}

void judge_quorum(const ordering_facts &known, ordering &found)
{
  const size_t heard = numbers_of(known.peers, is_live).size() + 1;
  const size_t own = runs(known.role) && known.stands != standing::is_new ? 1 : 0;
  const size_t active = numbers_of(known.peers, takes_part).size() + own;
  const size_t quorum = known.node_count / 2 + 1;
  const std::string of = " of " + std::to_string(known.node_count) + " nodes ";
  const std::string needed = ", a quorum is " + std::to_string(quorum);
  if (heard < quorum) {
    found.obstacles.push_back("only " + std::to_string(heard) + of + "heard" + needed);
  } else if (active < quorum) {
    found.obstacles.push_back("only " + std::to_string(active) + of + "take part" + needed);
  }
}

void judge_leader(const ordering_facts &known, ordering &found)
{
  const auto led = [&](uint32_t from_ms, uint32_t to_ms) {
    return numbers_of(known.peers, [=](const ordering_peer &one) {
      return one.role == node_role::leader && one.age_ms >= from_ms && one.age_ms <= to_ms;
    });
  };
  auto leaders = led(0, FRESH_MS);
  if (known.role == node_role::leader) {
    leaders.insert(std::upper_bound(leaders.begin(), leaders.end(), known.node), known.node);
  }
  found.leader = leaders.size() == 1 ? leaders.front() : 0;
  const auto silent = led(LIVE_MS + 1, UINT32_MAX);
  if (leaders.size() > 1) {
    found.obstacles.push_back(nodes_text(leaders) + (leaders.size() == 2 ? " are both MASTER" : " are all MASTER"));
  } else if (leaders.empty() && led(0, LIVE_MS).empty()) {
    found.obstacles.push_back(silent.empty() ? "no node is MASTER"
                                             : "MASTER " + nodes_text(silent) + (silent.size() == 1 ? " is" : " are") +
                                                   " not heard");
  }
}

/// Why a node that is heard does not take part.
std::string absence_text(const ordering_peer &one)
{
  if (one.differs != difference::none) {
    return difference_text(one.differs);
  }
  switch (one.role) {
  case node_role::stopped:
    return " is stopped";
  case node_role::isolated:
    return " is isolated";
  case node_role::follower:
  case node_role::leader:
    break;
  }
  return one.stands == standing::is_new ? " is new, and has not joined" : "";
}

void note_the_rest(const ordering_facts &known, ordering &found)
{
  for (const ordering_peer &one : known.peers) {
    if (const std::string absence = absence_text(one); is_live(one) && !absence.empty()) {
      found.notes.push_back("node " + std::to_string(one.node) + absence);
    }
  }
  if (!known.is_complete) {
    found.notes.emplace_back("this node is incomplete, and waits for a state");
  }
  if (known.is_barred) {
    found.notes.emplace_back("this node is barred from leading: a quorum has another history");
  }
  if (known.stays_out.empty() && !known.not_yet.empty()) {
    found.notes.push_back("this node may not lead: " + known.not_yet);
  }
  uint32_t highest = known.decision;
  for (const ordering_peer &one : known.peers) {
    highest = is_live(one) && one.differs == difference::none ? std::max(highest, one.decision) : highest;
  }
  // Hellos are a second apart, so a node that keeps up may seem to be a few hundred behind: a whole log is not that.
  constexpr uint32_t LOG_ENTRIES = 250;
  if (highest - known.decision > LOG_ENTRIES) {
    found.notes.push_back("this node is catching up, " + std::to_string(highest - known.decision) +
                          " decisions behind");
  }
}

std::string joined(const std::vector<std::string> &texts)
{
  std::string all;
  for (const std::string &one : texts) {
    all += (all.empty() ? "" : "; ") + one;
  }
  return all;
}

}  // namespace

ordering ordering_of(const ordering_facts &known)
{
  ordering found;
  judge_own(known, found);
  judge_quorum(known, found);
  judge_leader(known, found);
  if (known.oldest_wait_s >= LONG_WAIT_S) {
    found.obstacles.push_back("the oldest submission waits since " + std::to_string(known.oldest_wait_s) + " s");
  }
  note_the_rest(known, found);
  return found;
}

std::string obstacles_text(const ordering &of)
{
  return joined(of.obstacles);
}

std::string ordering_text(const ordering &of)
{
  const std::string notes = of.notes.empty() ? "" : "; " + joined(of.notes);
  return (of.obstacles.empty() ? "ordering" : "not ordering: " + obstacles_text(of)) + notes;
}

}  // namespace kesh
