#include "cluster/newcomer.h"

#include <gtest/gtest.h>

#include <sstream>

#include "cluster/no_op_rule.h"
#include "cluster/reform.h"
#include "cluster/vote_filter.h"

using namespace kesh;

namespace
{

constexpr const char *IDENTITY = "blue, generation 3, 02:00:00:00:00:01";

/// A hello as a word: NODE, its top, n for new, the id of node 1 that it knows (i12); ? for ids not looked up.
hello hello_of(const std::string &word)
{
  const auto number_after = [&](char mark) {
    const size_t at = word.find(mark);
    return at == std::string::npos ? 0u : static_cast<uint32_t>(std::stoul(word.substr(at + 1)));
  };
  hello said;
  said.node_count = 3;
  said.node = static_cast<uint32_t>(std::stoul(word));
  said.top = number_after('@');
  said.stands = word.find('n') == std::string::npos ? standing::member : standing::is_new;
  if (word.find('?') == std::string::npos) {
    said.ids = message_ids{number_after('i'), 0, 0};
  }
  return said;
}

}  // namespace

// Node 1 of three is new. What it may have promised must not be decided behind its back.
TEST(newcomer, joins_when_it_knows_all_that_it_can_have_forgotten)
{
  const newcomer::own at_740{true, true, 740, 1, 0};
  const struct {
    const char *what;
    const char *hellos;
    newcomer::own own;
    const char *step;  // j joined, m member, a number: raise the id to it, - waits
  } cases[] = {
      {"one is silent", "2@740", at_740, "-"},
      {"all are heard", "2@740 3@700", at_740, "m"},
      {"one asked for more", "2@740 3@741", at_740, "-"},
      {"what was asked for since does not count", "2@740 3@740 3@755", at_740, "m"},
      {"the first counts, though a later one is lower", "2@740 3@741 3@740", at_740, "-"},
      {"its log is not delivered", "2@740 3@740", {true, false, 740, 1, 0}, "-"},
      {"its library does not run", "2@740 3@740", {false, true, 740, 1, 0}, "-"},
      {"a cluster that forms", "2@0n 3@0n", {true, true, 0, 1, 0}, "j"},
      {"forms, and one leads already", "2@0n 3@1", {true, true, 0, 1, 0}, "-"},
      {"a majority forgot, and the third may have missed what it decided", "2@740 3@0n", at_740, "-"},
      {"also when one of it has learnt something since", "2@740 3@0n 3@740", at_740, "-"},
      {"used ids are not known yet", "2@740 3@740?", at_740, "-"},
      {"one knows a used id", "2@740i12 3@740", at_740, "65548"},
      {"one knew it before", "2@740i12 2@740? 3@740", at_740, "65548"},
      {"itself knows a higher one", "2@740i12 3@740", {true, true, 740, 1, 13}, "65549"},
      {"the last known id is not free", "2@740i12 3@740", {true, true, 740, 12, 0}, "65548"},
      {"its ids were raised", "2@740i12 3@740", {true, true, 740, 65548, 0}, "m"},
      {"there is no room above", "2@740i4294967290 3@740", at_740, "4294967295"},
      {"its own number, and one above the count", "1@900 4@900 2@740 3@740", at_740, "m"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    newcomer node(3, 1);
    node.begin(standing::is_new);
    std::istringstream words(c.hellos);
    for (std::string word; words >> word;) {
      node.heard(hello_of(word));
    }
    const auto next = node.advance(c.own);
    const std::string becomes = next.becomes ? standing_name(*next.becomes) : "-";
    EXPECT_EQ(next.msg_id ? std::to_string(*next.msg_id) : becomes.substr(0, 1), c.step);
    EXPECT_FALSE(node.why_no_submission().empty()) << "not before it is durable";
  }
}

// A leader whose first question comes before the last node has joined would make that node wait for itself.
TEST(newcomer, does_not_lead_before_all_have_joined)
{
  newcomer node(3, 1);
  node.begin(standing::is_new);
  const newcomer::own nothing{true, true, 0, 1, 0};
  node.heard(hello_of("2@0n"));
  node.heard(hello_of("3@0n"));
  ASSERT_EQ(node.advance(nothing).becomes, standing::joined);
  node.begin(standing::joined);
  EXPECT_EQ(node.advance(nothing).becomes, std::nullopt);
  EXPECT_EQ(node.why_no_submission(), "");
  EXPECT_EQ(node.why_no_lead(), "the cluster forms: nodes that have not joined yet: 2, 3");

  newcomer later = node;
  EXPECT_EQ(later.advance({true, true, 1, 1, 0}).becomes, standing::member) << "another one was faster";

  node.heard(hello_of("2@0"));
  EXPECT_EQ(node.advance(nothing).becomes, std::nullopt);
  node.heard(hello_of("3@0"));
  EXPECT_EQ(node.advance(nothing).becomes, standing::member);
  node.begin(standing::member);
  EXPECT_EQ(node.why_no_lead(), "");

  // Its disk was emptied while the daemon went on: what it heard was asked for before it forgot.
  node.begin(standing::is_new);
  EXPECT_EQ(node.advance(nothing).becomes, std::nullopt);

  newcomer alone(1, 1);
  alone.begin(standing::is_new);
  EXPECT_EQ(alone.advance(nothing).becomes, standing::joined);
}

// A node that formed a cluster and was restarted before the first decision has nothing else to show. One that is new
// stays so when it has learnt decisions.
TEST(newcomer, its_file_tells_what_the_records_cannot)
{
  const std::string joined = standing_text(standing::joined, IDENTITY);
  EXPECT_EQ(joined, std::string("joined\n") + IDENTITY + "\n");
  const struct {
    std::string text;
    bool has_past;
    standing found;
  } cases[] = {{"", false, standing::is_new},
               {"", true, standing::member},
               {joined, false, standing::joined},
               {standing_text(standing::is_new, IDENTITY), true, standing::is_new},
               {standing_text(standing::member, IDENTITY), false, standing::member},
               {standing_text(standing::member, "blue, generation 2"), false, standing::is_new},
               {joined.substr(0, joined.size() - 1), false, standing::is_new},
               {"king\n" + std::string(IDENTITY) + "\n", false, standing::is_new}};
  for (const auto &c : cases) {
    EXPECT_EQ(standing_at_start(standing_read(c.text, IDENTITY), c.has_past), c.found) << c.text;
  }
}

TEST(newcomer, takes_no_part_in_votes)
{
  vote_filter filter(7, 9);
  const std::vector<uint8_t> question = {0, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0};
  const std::vector<uint8_t> missing = {4, 0, 1, 2, 1, 0, 0, 0}, complete = {3, 0, 1, 2, 1, 0, 0, 0}, cut = {4};
  for (const bool passes : {false, true}) {
    filter.let_votes_pass(passes);
    EXPECT_EQ(filter.lets_in({3, 0, 7, 9, question}), passes);
    EXPECT_TRUE(filter.lets_in({4, 0, 7, 9, question}));
    EXPECT_TRUE(filter.lets_in({5, 0, 7, 9, missing}));
    EXPECT_EQ(filter.lets_out({5, 0, 7, 9, missing}), passes);
    EXPECT_TRUE(filter.lets_out({5, 0, 7, 9, complete}));
    EXPECT_TRUE(filter.lets_out({5, 0, 7, 9, cut}));
    EXPECT_TRUE(filter.lets_out({4, 0, 7, 9, missing}));
  }
  EXPECT_EQ(filter.watch().greatest(), 5u) << "it is seen all the same";
}

TEST(no_op_rule, orders_for_those_in_need_and_not_for_ever)
{
  own_facts own;
  own.decision = own.top = 100;
  peer_view good;
  good.is_member = true;
  good.age_ms = 900;
  good.last.node = 2;
  good.last.role = node_role::follower;
  good.last.decision = good.last.top = 100;
  good.last.handled = true;
  good.last.position.complete = true;
  const auto with = [&](auto change) {
    peer_view one = good;
    change(one);
    return one;
  };
  const peer_view waits = with([](peer_view &one) { one.last.position.complete = false; });
  const struct {
    const char *what;
    peer_view peer;
    bool wants;
  } cases[] = {
      {"all is well", good, false},
      {"it waits for a state", waits, true},
      {"it was not heard lately", with([&](peer_view &one) { one = waits, one.age_ms = 5001; }), false},
      {"it is of another generation", with([&](peer_view &one) { one = waits, one.is_member = false; }), false},
      {"it still delivers", with([&](peer_view &one) { one = waits, one.last.handled = false; }), false},
      {"it is stopped", with([&](peer_view &one) { one = waits, one.last.role = node_role::stopped; }), false},
      {"it is new and up to date", with([](peer_view &one) { one.last.stands = standing::is_new; }), false},
      {"it is new, and a register was asked for",
       with([](peer_view &one) { one.last.stands = standing::is_new, one.last.top = 101; }), true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    no_op_rule rule;
    cluster_view view;
    view.peers = {c.peer};
    EXPECT_EQ(rule.wants(view, own, 1000), c.wants);
  }

  no_op_rule rule;
  cluster_view view;
  view.peers = {waits};
  for (uint32_t i = 0; i < no_op_rule::NO_OPS_MAX; ++i) {
    ASSERT_TRUE(rule.wants(view, own, 1000));
    rule.ordered();
  }
  EXPECT_FALSE(rule.wants(view, own, 1000)) << "that many would have begun a log";
  view.peers = {good};
  EXPECT_FALSE(rule.wants(view, own, 1000));
  view.peers = {waits};
  EXPECT_TRUE(rule.wants(view, own, 1000)) << "another occasion";

  // It skipped the last entry, so it never says that it handled it.
  view.peers[0].last.handled = false;
  EXPECT_FALSE(rule.wants(view, own, 2000));
  EXPECT_TRUE(rule.wants(view, own, 2000 + no_op_rule::STUCK_MS));
  view.peers[0].last.position.n = 1;
  EXPECT_FALSE(rule.wants(view, own, 2001 + no_op_rule::STUCK_MS));
}

namespace
{

/// H(n) of a history that leaves the common one at payload `fork`.
chain_hash hash_of(uint64_t n, uint64_t fork = UINT64_MAX)
{
  chain_hash hash{};
  hash[0] = static_cast<uint8_t>(n);
  hash[1] = static_cast<uint8_t>(n >> 8);
  hash[31] = n >= fork ? 1 : 0;
  return hash;
}

reform_voice voice_of(uint32_t node, uint64_t n, uint64_t fork = UINT64_MAX)
{
  return {node, 0, true, standing::reformed, {1, true, n, hash_of(n, fork), hash_of(checkpoint_of(n), fork)}};
}

}  // namespace

// Node 1 of three is at payload 600 and keeps its hashes from 300 on. Whoever leads first gives its store to all.
TEST(reform, the_node_that_applied_most_leads_first_and_only_over_one_history)
{
  reform_voice incomplete = voice_of(2, 600), begun = voice_of(2, 650), gone = begun, without_disk = voice_of(2, 0);
  without_disk.stands = standing::is_new;
  incomplete.said.complete = false;
  begun.decision = gone.decision = 4;
  gone.is_live = false;
  const struct {
    const char *what;
    std::vector<reform_voice> voices;
    const char *obstacle;  // part of it; empty: none
  } cases[] = {
      {"alone", {}, "has heard 0 other nodes"},
      {"equal", {voice_of(2, 600)}, ""},
      {"behind", {voice_of(2, 500), voice_of(3, 600)}, ""},
      {"ahead", {voice_of(2, 601)}, "node 2 has applied more, 601"},
      {"behind what is kept", {voice_of(2, 299)}, "node 2 cannot be compared"},
      {"another one at the same payload", {voice_of(2, 600, 600)}, "another history, seen at payload 600"},
      {"another one behind", {voice_of(2, 500, 500)}, "another history, seen at payload 500"},
      {"another one ahead", {voice_of(2, 700, 500)}, "another history, seen at payload 512"},
      {"another one, beside an equal one", {voice_of(2, 600), voice_of(3, 500, 400)}, "node 3 has another history"},
      {"one that waits for a state", {incomplete}, "has heard 0 other nodes"},
      {"one that lost its disk", {without_disk}, "has heard 0 other nodes"},
      {"one has begun", {begun}, "node 2 has begun"},
      {"one had begun and is gone", {gone, voice_of(3, 600)}, ""},
  };
  const auto own_hash = [](uint64_t n) { return n >= 300 ? std::optional(hash_of(n)) : std::nullopt; };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    const std::string obstacle = reform_obstacle(3, voice_of(1, 600).said, c.voices, own_hash);
    EXPECT_EQ(obstacle.empty(), *c.obstacle == '\0') << obstacle;
    EXPECT_NE(obstacle.find(c.obstacle), std::string::npos) << obstacle;
  }
}

// The log of a new generation begins with new ids: rows of the one before name the same nodes.
TEST(reform, a_node_submits_once_its_ids_are_free_and_is_a_member_with_the_first_decision)
{
  newcomer node(3, 1);
  node.begin(standing::reformed);
  newcomer::own now{true, true, 0, 1, 12, "another one goes first"};
  EXPECT_EQ(node.advance(now).msg_id, std::nullopt) << "no majority was heard";
  node.heard(hello_of("2@0i20"));
  EXPECT_EQ(node.advance(now).msg_id, 20 + UNKNOWN_IDS_MAX);
  EXPECT_NE(node.why_no_submission(), "");
  now.msg_id = 20 + UNKNOWN_IDS_MAX;
  EXPECT_EQ(node.advance(now).becomes, std::nullopt);
  EXPECT_EQ(node.why_no_submission(), "");
  EXPECT_EQ(node.why_no_lead(), "the cluster is reformed: another one goes first");
  now.obstacle.clear();
  EXPECT_EQ(node.advance(now).becomes, std::nullopt);
  EXPECT_EQ(node.why_no_lead(), "");
  now.decision = 1;
  EXPECT_EQ(node.advance(now).becomes, standing::member);
}
