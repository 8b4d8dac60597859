// What the first line of the status says.
#include "cluster/ordering.h"

#include <gtest/gtest.h>

#include <functional>

using namespace kesh;

namespace
{

constexpr uint32_t SILENT = 5001;

/// Node 1 of three follows node 2, and all hear each other.
ordering_facts well()
{
  ordering_facts all;
  all.node = 1;
  all.node_count = 3;
  all.role = node_role::follower;
  all.decision = 1000;
  all.peers = {{2, 900, node_role::leader, standing::member, 1000, difference::none},
               {3, 900, node_role::follower, standing::member, 1000, difference::none}};
  return all;
}

ordering_facts with(const std::function<void(ordering_facts &)> &change)
{
  ordering_facts all = well();
  change(all);
  return all;
}

}  // namespace

TEST(ordering, says_in_one_sentence_why_nothing_is_ordered)
{
  using facts = ordering_facts;
  const struct {
    facts known;
    const char *sentence;
  } cases[] = {
      {well(), "ordering"},
      {with([](facts &all) { all.peers[1].age_ms = SILENT; }), "ordering"},
      {with([](facts &all) { all.peers[0].age_ms = all.peers[1].age_ms = SILENT; }),
       "not ordering: only 1 of 3 nodes heard, a quorum is 2; MASTER node 2 is not heard"},
      {with([](facts &all) { all.peers.clear(); }),
       "not ordering: only 1 of 3 nodes heard, a quorum is 2; no node is MASTER"},
      {with([](facts &all) { all.peers[0].role = node_role::follower; }), "not ordering: no node is MASTER"},
      {with([](facts &all) { all.peers[0].age_ms = SILENT; }), "not ordering: MASTER node 2 is not heard"},
      {with([](facts &all) { all.peers[0].role = node_role::isolated, all.role = node_role::leader; }),
       "ordering; node 2 is isolated"},
      {with([](facts &all) {
         all.role = node_role::leader, all.peers[0].role = node_role::stopped, all.peers[1].stands = standing::is_new;
       }),
       "not ordering: only 1 of 3 nodes take part, a quorum is 2; node 2 is stopped; node 3 is new, and has not "
       "joined"},
      {with([](facts &all) { all.peers[1].role = node_role::leader, all.peers[0].age_ms = 3000; }), "ordering"},
      {with([](facts &all) { all.peers[0].age_ms = 3000; }), "ordering"},
      {with([](facts &all) { all.peers[1].role = all.role = node_role::leader; }),
       "not ordering: nodes 1, 2 and 3 are all MASTER"},
      {with([](facts &all) { all.peers[0].age_ms = SILENT, all.peers[1].differs = difference::build; }),
       "not ordering: only 1 of 3 nodes heard, a quorum is 2; MASTER node 2 is not heard; node 3 has another build, "
       "which this one does not understand"},
      {with([](facts &all) { all.peers[1].differs = difference::generation; }),
       "ordering; node 3 is of another generation of this cluster"},
      {with([](facts &all) { all.peers[1].age_ms = SILENT, all.peers[1].differs = difference::cluster; }), "ordering"},
      {with([](facts &all) { all.role = node_role::stopped; }), "not ordering: this node is stopped"},
      {with([](facts &all) { all.role = node_role::isolated, all.isolated = " since 10:15: write() failed"; }),
       "not ordering: this node is isolated since 10:15: write() failed"},
      {with([](facts &all) { all.no_room = "7 bytes are free"; }),
       "not ordering: this node has no room for payloads: 7 bytes are free"},
      {with([](facts &all) { all.no_network = "address 192.0.2.1 is on no interface", all.peers.clear(); }),
       "not ordering: this node has no network: address 192.0.2.1 is on no interface; only 1 of 3 nodes heard, a "
       "quorum "
       "is 2; no node is MASTER"},
      {with([](facts &all) { all.stays_out = "its disk went back", all.not_yet = "it is new"; }),
       "not ordering: this node stays out: its disk went back"},
      {with([](facts &all) { all.oldest_wait_s = 4; }), "ordering"},
      {with([](facts &all) { all.oldest_wait_s = 14; }), "not ordering: the oldest submission waits since 14 s"},
      {with([](facts &all) {
         all.is_complete = false, all.is_barred = true, all.not_yet = "it is new", all.decision = 700;
       }),
       "ordering; this node is incomplete, and waits for a state; this node is barred from leading: a quorum has "
       "another "
       "history; this node may not lead: it is new; this node is catching up, 300 decisions behind"},
      {with([](facts &all) { all.decision = 1300; }), "ordering"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(ordering_text(ordering_of(c.known)), c.sentence);
  }
}
