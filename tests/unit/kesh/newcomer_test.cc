#include "cluster/newcomer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "../platform/scratch.h"
#include "cluster/no_op_rule.h"
#include "cluster/reform.h"
#include "cluster/standing_file.h"
#include "cluster/vote_filter.h"

using namespace kesh;

namespace
{

constexpr const char *IDENTITY = "blue, generation 3, 02:00:00:00:00:01";

/// A hello as a word: NODE, its top, n for new, f for reformed, the id of node 1 that it knows (i12), the one of its
/// own that it handed out (h70); ? for ids not looked up.
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
  const size_t mark = word.find_first_of("nf");
  said.stands = mark == std::string::npos ? standing::member
                : word[mark] == 'n'       ? standing::is_new
                                          : standing::reformed;
  if (word.find('?') == std::string::npos) {
    said.ids.emplace()[said.node - 1] = number_after('h');
    (*said.ids)[0] = number_after('i');
  }
  return said;
}

}  // namespace

// Node 1 of three is new. What it may have promised must not be decided behind its back.
TEST(newcomer, joins_when_it_knows_all_that_it_can_have_forgotten)
{
  const newcomer::own at_740{true, true, 740, 65536, 0}, low{true, true, 740, 1, 0};
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
      {"forms, and others are reformed", "2@0f 3@0n", {true, true, 0, 1, 0}, "-"},
      {"others are reformed, and have begun", "2@3f 3@3", {true, true, 3, 65536, 0}, "m"},
      {"another daemon has its number", "2@740 3@740", {true, true, 740, 65536, 0, "", true}, "-"},
      {"a majority forgot, and the third may have missed what it decided", "2@740 3@0n", at_740, "-"},
      {"also when one of it has learnt something since", "2@740 3@0n 3@740", at_740, "-"},
      {"used ids are not known yet", "2@740 3@740?", at_740, "-"},
      {"a top without ids is no word", "2@740 3@0? 3@741", at_740, "-"},
      {"no used id is known, which proves nothing", "2@740 3@740", low, "65536"},
      {"one knows a used id", "2@740i12 3@740", low, "65548"},
      {"one knew it before", "2@740i12 2@740? 3@740", low, "65548"},
      {"itself knows a higher one", "2@740i12 3@740", {true, true, 740, 1, 13}, "65549"},
      {"the last known id is not free", "2@740i12 3@740", {true, true, 740, 12, 0}, "65548"},
      {"its ids were raised", "2@740i12 3@740", {true, true, 740, 65548, 0}, "m"},
      {"there is no room above", "2@740i4294967290 3@740", low, "4294967295"},
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

// What it held it may be asked for, and its word would make it lost.
TEST(newcomer, never_says_that_it_lacks_what_it_may_have_held)
{
  newcomer node(3, 1);
  node.begin(standing::is_new);
  for (const char *word : {"2@740h70", "3@740?", "3@740h80", "2@740h75"}) {
    node.heard(hello_of(word));
  }
  const auto next = node.advance({true, true, 740, 65536, 0});
  ASSERT_EQ(next.becomes, standing::member);
  EXPECT_EQ(next.held, (message_ids{65536, 70, 80}));

  vote_filter filter(7, 9);
  filter.hold_missing(next.held);
  const std::vector<uint8_t> question = {0, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0};
  const std::vector<uint8_t> held = {4, 0, 3, 2, 70, 0, 0, 0}, later = {4, 0, 3, 2, 71, 0, 0, 0};
  const std::vector<uint8_t> complete = {3, 0, 3, 2, 1, 0, 0, 0}, cut = {4, 0, 3}, nobody = {4, 0, 3, 99, 1, 0, 0, 0};
  for (const bool passes : {false, true}) {
    filter.let_votes_pass(passes);
    EXPECT_EQ(filter.lets_in({3, 0, 7, 9, question}), passes);
    EXPECT_TRUE(filter.lets_in({4, 0, 7, 9, question}));
    EXPECT_TRUE(filter.lets_out({4, 0, 7, 9, held}));
    for (const auto lets : {&vote_filter::lets_in, &vote_filter::lets_out}) {
      EXPECT_FALSE((filter.*lets)({5, 0, 7, 9, held}));
      EXPECT_EQ((filter.*lets)({5, 0, 7, 9, later}), passes);
      EXPECT_EQ((filter.*lets)({5, 0, 7, 9, nobody}), passes);
      EXPECT_TRUE((filter.*lets)({5, 0, 7, 9, complete}));
      EXPECT_TRUE((filter.*lets)({5, 0, 7, 9, cut}));
    }
  }
  EXPECT_EQ(filter.watch().greatest(), 5u) << "it is seen all the same";
  const std::vector<uint8_t> asked = {0, 0, 0, 0, 6, 0, 0, 0, 1, 0, 0, 0};
  EXPECT_TRUE(filter.lets_out({3, 0, 7, 9, asked}));
  EXPECT_EQ(filter.watch().greatest(), 6u) << "a question counts when it is sent";
}

// A node that formed a cluster and was restarted before the first decision has nothing else to show. One that is new
// stays so when it has learnt decisions.
TEST(newcomer, its_file_tells_what_the_records_cannot)
{
  const cluster_identity blue{"blue", "02:00:00:00:00:01", 3};
  const scratch dir;
  const standing_file file(dir.path("."), blue);
  std::string error;
  EXPECT_EQ(file.read(error), std::nullopt);
  EXPECT_EQ(error, "") << "absent";
  const kept_standing reformed{standing::reformed, {}, 5};
  ASSERT_TRUE(file.write(reformed, error)) << error;
  EXPECT_EQ(file.read(error), reformed);
  EXPECT_TRUE(dir.read("kesh.standing").ends_with(" 0\nwithout 1 3\n"));
  const kept_standing joined{standing::joined, {0, 70, 80}, 0};
  ASSERT_TRUE(file.write(joined, error)) << error;
  const std::string text = dir.read("kesh.standing");
  EXPECT_EQ(text, std::string("joined\n") + IDENTITY + "\n0 70 80 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
  EXPECT_EQ(file.read(error), joined);
  EXPECT_EQ(standing_read(text, "blue, generation 2"), std::nullopt);
  for (size_t cut = 0; cut < text.size(); ++cut) {
    EXPECT_EQ(standing_read(text.substr(0, cut), IDENTITY), std::nullopt);
  }
  std::ofstream(dir.path("kesh.standing")) << "king" << text.substr(text.find('\n'));
  EXPECT_EQ(file.read(error), std::nullopt);
  EXPECT_NE(error, "");
  std::filesystem::remove(dir.path("kesh.standing"));
  std::filesystem::create_directory(dir.path("kesh.standing"));
  EXPECT_EQ(file.read(error), std::nullopt);
  EXPECT_NE(error, "");

  EXPECT_EQ(standing_at_start(std::nullopt, false), standing::is_new);
  EXPECT_EQ(standing_at_start(std::nullopt, true), standing::member);
  for (const standing kept : {standing::is_new, standing::joined, standing::member, standing::reformed}) {
    EXPECT_EQ(standing_at_start(kept, kept == standing::is_new), kept);
  }
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
  const peer_view begins = with([](peer_view &one) {
    one.last.stands = standing::is_new, one.last.handled = false, one.last.decision = one.last.top = 0;
  });
  for (const standing stands : {standing::reformed, standing::member}) {
    own_facts leads;
    leads.stands = stands;
    cluster_view view;
    view.peers = {begins};
    EXPECT_EQ(no_op_rule().wants(view, leads, 1000), stands == standing::reformed) << standing_name(stands);
  }
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
  view.peers.push_back(waits);
  view.peers[1].last.node = 3;
  EXPECT_TRUE(rule.wants(view, own, 1000)) << "each node has its own count";
  EXPECT_TRUE(rule.wants(view, own, 1000 + no_op_rule::AGAIN_MS)) << "it may have been a disk that was full";
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
  return {node, true, 0, true, standing::reformed, {1, true, n, hash_of(n, fork), hash_of(checkpoint_of(n), fork)}};
}

}  // namespace

// Node 1 of three is at payload 600 and keeps its hashes from 300 on. Whoever leads first gives its store to all.
TEST(reform, the_node_that_applied_most_leads_first_and_only_over_one_history)
{
  reform_voice incomplete = voice_of(2, 600), begun = voice_of(2, 650), gone = begun, without_disk = voice_of(2, 0);
  reform_voice left_behind = voice_of(2, 700);
  left_behind.is_member = false;
  without_disk.stands = standing::is_new;
  incomplete.said.complete = false;
  begun.decision = gone.decision = 4;
  gone.is_live = false;
  const struct {
    const char *what;
    std::vector<reform_voice> voices;
    const char *obstacle;  // part of it; empty: none
    uint32_t without = 0;
  } cases[] = {
      {"alone", {}, "it has heard 1 of 3 nodes with itself, and 2 have to"},
      {"equal", {voice_of(2, 600), voice_of(3, 600)}, ""},
      {"equal, and the third one is silent", {voice_of(2, 600)}, "node 3 has not been heard"},
      {"equal, and the third one's store is lost", {voice_of(2, 600)}, "", 4},
      {"ahead, and the third one's store is lost", {voice_of(2, 601)}, "node 2 has applied more, 601", 4},
      {"behind", {voice_of(2, 500), voice_of(3, 600)}, ""},
      {"ahead", {voice_of(2, 601)}, "node 2 has applied more, 601"},
      {"behind what is kept", {voice_of(2, 299)}, "node 2 cannot be compared"},
      {"another one at the same payload", {voice_of(2, 600, 600)}, "another history, seen at payload 600"},
      {"another one behind", {voice_of(2, 500, 500)}, "another history, seen at payload 500"},
      {"another one ahead", {voice_of(2, 700, 500)}, "another history, seen at payload 512"},
      {"another one, beside an equal one", {voice_of(2, 600), voice_of(3, 500, 400)}, "node 3 has another history"},
      {"one that waits for a state", {incomplete}, "1 of 3 nodes have their store, and 2 have to"},
      {"one that lost its disk", {without_disk}, "it has heard 1 of 3 nodes"},
      {"one that lost its disk, beside an equal one", {without_disk, voice_of(3, 600)}, "node 2 has no store"},
      {"one that waits for a state, beside an equal one", {incomplete, voice_of(3, 600)}, "the store of node 2 is not"},
      {"the same, and a person says so", {incomplete, voice_of(3, 600)}, "", 2},
      {"one that was not reformed", {left_behind, voice_of(3, 600)}, "node 2 is of another generation"},
      {"one has begun", {begun}, "node 2 has begun"},
      {"one had begun and is gone", {gone, voice_of(3, 600)}, ""},
  };
  const auto own_hash = [](uint64_t n) { return n >= 300 ? std::optional(hash_of(n)) : std::nullopt; };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    const std::string obstacle = reform_obstacle({3, 1, c.without, voice_of(1, 600).said}, c.voices, own_hash);
    EXPECT_EQ(obstacle.empty(), *c.obstacle == '\0') << obstacle;
    EXPECT_NE(obstacle.find(c.obstacle), std::string::npos) << obstacle;
  }
  EXPECT_EQ(reform_obstacle({2, 1, 2, voice_of(1, 600).said}, {incomplete}, own_hash), "")
      << "both were needed for whatever was acknowledged, so one store has it all";
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
