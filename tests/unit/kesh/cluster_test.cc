#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "../platform/scratch.h"
#include "cluster/agreement.h"
#include "cluster/hello.h"
#include "cluster/hello_service.h"
#include "cluster/lead.h"
#include "cluster/node_state_file.h"
#include "cluster/peers.h"
#include "cluster/register_watch.h"

using namespace kesh;

namespace
{

const cluster_identity CLUSTER{"blue", "02:00:00:00:00:01", 3};

/// H(n) of a history that leaves the common one at payload `fork` and is called `name` from there on.
chain_hash hash_of(uint64_t n, uint8_t name = 0, uint64_t fork = UINT64_MAX)
{
  chain_hash hash{};
  for (size_t i = 0; i < 8; ++i) {
    hash[i] = static_cast<uint8_t>(n >> (8 * i));
  }
  hash[31] = n >= fork ? name : 0;
  return hash;
}

told_position position_at(uint64_t n, uint8_t name = 0, uint64_t fork = UINT64_MAX, uint64_t store = 1)
{
  return {store, true, n, hash_of(n, name, fork), hash_of(checkpoint_of(n), name, fork)};
}

hello hello_of(uint32_t node, uint64_t number, uint32_t decision = 740)
{
  hello said;
  said.cluster = CLUSTER;
  said.build = 10000;
  said.node_count = 3;
  said.node = node;
  said.session = 100 + node;
  said.number = number;
  said.role = node_role::leader;
  said.decision = decision;
  said.top = decision + 1;
  said.position = position_at(300);
  said.handled = true;
  said.heard = {{1, 20, 101, 739}, {3, 5, 103, 0}};
  return said;
}

}  // namespace

// Builds must understand each other by these bytes.
TEST(cluster_hello, is_this_text)
{
  hello said = hello_of(2, 7);
  said.position.checkpoint_hash.reset();
  said.stands = standing::joined;
  said.could_lead = true;
  said.ids = {7, 0, 9};
  said.reason = "no \"leader\"";
  const std::string hash = "2c01" + std::string(60, '0');
  const std::string text =
      R"({"build":10000,"checkpoint_hash":null,"cluster":"blue","complete":true,"could_lead":true,"decision":740,)"
      R"("generation":3,"handled":true,"hash":")" +
      hash + R"(","heard":[[1,20,101,739],[3,5,103,0]],"ids":[7,0,9],"mac":"02:00:00:00:00:01","n":300,"node":2,)" +
      R"("nodes":3,"number":7,"reason":"no \"leader\"","role":"leader","session":102,)" +
      R"("standing":"joined","state_max":0,"store":1,)" + R"("top":741})";
  EXPECT_EQ(hello_encode(said), text);
  EXPECT_EQ(hello_decode(text), said);
  std::string older = text;
  older.erase(older.find("\"could_lead\""), 18);
  said.could_lead = false;
  EXPECT_EQ(hello_decode(older), said) << "a build that did not tell";
}

TEST(cluster_hello, fits_its_datagram_whatever_it_says)
{
  hello said = hello_of(16, UINT64_MAX, UINT32_MAX - 1);
  said.cluster.name = std::string(CLUSTER_NAME_MAX, 'x');
  said.cluster.generation = said.position.store = said.position.n = UINT64_MAX;
  said.build = said.session = UINT32_MAX;
  said.node_count = 16;
  said.role = node_role::isolated;
  said.heard.assign(16, {16, UINT32_MAX, UINT32_MAX, UINT32_MAX});
  said.ids.emplace().fill(UINT32_MAX);
  for (const std::string &reason :
       {std::string(5000, '\x01'), std::string(5000, '\xff'), std::string(5000, 'x'), std::string("short")}) {
    said.reason = reason;
    const std::string text = hello_encode(said);
    EXPECT_LE(text.size(), HELLO_MAX);
    const auto read = hello_decode(text);
    ASSERT_TRUE(read);
    EXPECT_FALSE(read->reason.empty());
    hello expected = said;
    expected.reason = read->reason;
    EXPECT_EQ(*read, expected);
  }
  said.reason = "";
  const size_t room = HELLO_MAX - hello_encode(said).size();
  said.reason = std::string(room - 1, 'x') + "\u00fc";
  EXPECT_EQ(hello_decode(hello_encode(said))->reason, std::string(room - 1, 'x')) << "no half character";
}

TEST(cluster_hello, hostile_bytes_are_dropped_as_a_whole)
{
  const std::string good = hello_encode(hello_of(2, 7));
  ASSERT_TRUE(hello_decode(good));
  for (size_t cut = 0; cut < good.size(); ++cut) {
    EXPECT_FALSE(hello_decode(good.substr(0, cut)));
  }
  auto fields = nlohmann::json::parse(good);
  fields["ids"] = {1, 2, 3};
  for (const auto &[key, value] : fields.items()) {
    SCOPED_TRACE(key);
    nlohmann::json without = fields;
    without.erase(key);
    EXPECT_EQ(hello_decode(without.dump()).has_value(), key == "could_lead");
    nlohmann::json wrong = fields;
    wrong[key] = nlohmann::json::object();
    EXPECT_FALSE(hello_decode(wrong.dump()));
  }
  const struct {
    const char *key;
    nlohmann::json value;
    bool accepted;
  } cases[] = {{"later", {1, "x"}, true},
               {"checkpoint_hash", nullptr, true},
               {"n", -1, false},
               {"n", 1.0, false},
               {"decision", uint64_t{1} << 32, false},
               {"nodes", 17, false},
               {"nodes", 1, false},
               {"node", 0, false},
               {"role", "king", false},
               {"hash", std::string(63, 'a'), false},
               {"hash", std::string(64, 'G'), false},
               {"mac", "02-00-00-00-00-01", false},
               {"cluster", std::string(CLUSTER_NAME_MAX + 1, 'c'), false},
               {"standing", "king", false},
               {"ids", nullptr, true},
               {"ids", {1, 2}, false},
               {"ids", {1, 2, -3}, false},
               {"heard", {{1, 2, 3}}, false},
               {"heard", {{17, 2, 3, 4}}, false},
               {"session", uint64_t{1} << 32, false},
               {"heard", nlohmann::json(17, {1, 2, 3, 4}), false},
               {"later", std::string(HELLO_MAX, 'x'), false}};
  for (const auto &c : cases) {
    nlohmann::json changed = fields;
    changed[c.key] = c.value;
    EXPECT_EQ(hello_decode(changed.dump()).has_value(), c.accepted) << changed;
  }
  EXPECT_FALSE(hello_decode(std::string(HELLO_MAX, '[')));
  EXPECT_FALSE(hello_decode("\xff\xfe{}"));
}

namespace
{

/// Where a node is, as a word: NODE@N, then its history and the payload from which on it is another (b200), the number
/// of its store (/2), ! for incomplete, ~ for no checkpoint kept.
struct step {
  explicit step(const std::string &word)
  {
    const auto number_after = [&](char mark) -> uint64_t {
      const size_t at = word.find(mark);
      return at == std::string::npos ? 0 : std::stoull(word.substr(at + 1));
    };
    const size_t letter = word.find_first_of("bc");
    node = static_cast<uint32_t>(std::stoul(word));
    name = letter == std::string::npos ? uint8_t{0} : static_cast<uint8_t>(word[letter]);
    fork = letter == std::string::npos ? 0 : std::stoull(word.substr(letter + 1));
    where = position_at(number_after('@'), name, fork, number_after('/'));
    where.complete = word.find('!') == std::string::npos;
    if (word.find('~') != std::string::npos) {
      where.checkpoint_hash.reset();
    }
  }
  uint32_t node;
  uint8_t name;
  uint64_t fork;
  told_position where;
};

/// = agrees, x diverged.
std::string verdict_text(agreement_verdict verdict)
{
  const bool is_equal = verdict.kind == agreement_kind::agrees;
  return verdict == agreement_verdict() ? "-" : (is_equal ? "=" : "x") + std::to_string(verdict.n);
}

}  // namespace

// Node 1 judges. It keeps its hashes from 100 on.
TEST(cluster_agreement, compares_what_can_be_compared_and_bars_only_by_a_quorum)
{
  const struct {
    const char *what;
    uint32_t node_count;
    const char *steps;
    const char *verdicts;
    bool is_barred;
  } cases[] = {
      {"behind", 3, "1@500 2@150 3@400b390", "=150 x400", false},
      {"behind what is kept", 3, "1@500 2@90", "- -", false},
      {"ahead, nothing to compare", 3, "1@300 2@400b350~", "- -", false},
      {"ahead, and goes on until this node gets there", 3, "1@300 2@400b390 2@450b390 1@410", "x400 -", false},
      {"ahead, with a checkpoint", 3, "1@300 2@400 3@310b200", "=256 x256", false},
      {"this node is not known yet", 3, "2@400", "- -", false},
      {"incomplete, then one of them no more", 3, "1@300 2@300b1! 3@300b1! 3@300", "- =300", false},
      {"this node is incomplete", 3, "1@300b1! 2@300 3@300", "- -", false},
      {"a verdict stays", 3, "1@300 2@300b260 2@280b260 2@290", "x280 -", false},
      {"until the other's store is replaced", 3, "1@300 2@300b1 2@300/2", "=300 -", false},
      {"or this node's", 3, "1@300 2@300b1 3@300b1 1@310b1/2", "=300 =300", false},
      {"one of three diverged: for it", 3, "1@300 2@300b290 3@300b290", "x300 x300", true},
      {"one of three diverged: for the others", 3, "1@300 2@300b290 3@300", "x300 =300", false},
      {"a quorum at a checkpoint only", 3, "1@600 2@520b400 3@530b400", "x512 x512", true},
      {"a quorum at nothing", 3, "1@600 2@520b515 3@530b515", "x520 x530", false},
      {"barred while the witnesses go on", 3, "1@300 2@300b290 3@300b290 2@310b290 3@320b290", "x300 x300", true},
      {"until one is replaced", 3, "1@300 2@300b290 3@300b290 3@300/2", "x300 =300", false},
      {"four in two halves", 4, "1@300 2@300 3@300b1 4@300b1", "=300 x256 x256", false},
      {"three of four diverged", 4, "1@300 2@300b1 3@300b1 4@300b1", "x256 x256 x256", true},
      {"three histories of three", 3, "1@300 2@300b1 3@300c1", "x256 x256", false},
      {"two nodes", 2, "1@300 2@300b1", "x256", false},
      {"a number above the count", 2, "1@300 2@300b1 3@300b1", "x256", false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    step own("1@0");
    agreement judge(c.node_count, [&](const told_position &, uint64_t n) {
      return n >= 100 ? std::optional(hash_of(n, own.name, own.fork)) : std::nullopt;
    });
    std::istringstream words(c.steps);
    for (std::string word; words >> word;) {
      const step one(word);
      if (one.node == 1) {
        own = one;
        judge.own(one.where);
      } else {
        judge.heard(one.node, one.where);
      }
    }
    std::string verdicts = verdict_text(judge.of(2));
    for (uint32_t node = 3; node <= c.node_count; ++node) {
      verdicts += ' ' + verdict_text(judge.of(node));
    }
    EXPECT_EQ(verdicts, c.verdicts);
    EXPECT_EQ(judge.barred().has_value(), c.is_barred);
  }
}

TEST(cluster_peers, difference_of_tells_why_a_node_does_not_count)
{
  const hello_settings own{CLUSTER, 10000, 3, 1, 101};
  const struct {
    difference differs;
    void (*change)(hello &);
  } cases[] = {
      {difference::none, [](hello &) {}},
      {difference::build, [](hello &said) { said.build = 10001; }},
      {difference::generation,
       [](hello &said) { said.cluster.generation++, said.cluster.first_mac = "02:02:02:02:02:02", said.build = 1; }},
      {difference::cluster, [](hello &said) { said.cluster.first_mac = "02:02:02:02:02:02"; }},
      {difference::cluster, [](hello &said) { said.cluster.name = "red", said.cluster.generation++; }},
      {difference::state_max, [](hello &said) { said.state_max = 7, said.cluster.generation++; }},
      {difference::node_count, [](hello &said) { said.node_count = 4, said.state_max = 7; }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    hello said = hello_of(2, 5);
    said.build = own.build;
    c.change(said);
    EXPECT_EQ(difference_of(said, own), c.differs);
  }
}

TEST(cluster_peers, tells_its_own_from_strangers_and_remembers_decisions)
{
  peers heard({CLUSTER, 10000, 3, 1, 101});
  EXPECT_EQ(heard.heard(hello_of(2, 5, 700), 1000), hello_kind::member);
  EXPECT_EQ(heard.heard(hello_of(2, 5, 900), 1001), hello_kind::old) << "doubled or overtaken";
  hello one = hello_of(2, 1, 690);
  one.session = 1;  // its daemon began anew
  EXPECT_EQ(heard.heard(one, 1200), hello_kind::member);
  EXPECT_EQ(heard.lines(1500), (std::vector<heard_line>{{2, 300, 1, 700}}));
  EXPECT_EQ(heard.heard(hello_of(2, 6, 710), 1300), hello_kind::member) << "it overtakes";
  one.number = 2;
  one.decision = 720;
  heard.heard(one, 1500);
  EXPECT_EQ(heard.lines(1500), (std::vector<heard_line>{{2, 0, 1, 710}})) << "not what it told in this session";

  one = hello_of(3, 1, 2000);
  one.cluster.generation = 2;
  one.heard = {{1, 0, 101, 5000}};
  EXPECT_EQ(heard.heard(one, 1500), hello_kind::other_generation);
  EXPECT_EQ(heard.lines(1500)[1], (heard_line{3, 0, 103, 0})) << "decisions of another life say nothing";
  one.cluster = {"red", CLUSTER.first_mac, 3};
  EXPECT_EQ(heard.heard(one, 1600), hello_kind::other_cluster);
  EXPECT_EQ(heard.stranger()->last, one);
  one.cluster = CLUSTER;
  one.node_count = 4;
  EXPECT_EQ(heard.heard(one, 1600), hello_kind::other_cluster) << "its quorums are others";
  one.node_count = 3;
  one.state_max = 7;
  EXPECT_EQ(heard.heard(one, 1600), hello_kind::other_cluster) << "its states are others";
  EXPECT_EQ(heard.heard(hello_of(1, 9), 1600), hello_kind::own);

  // Node 2 had heard this session, and decision 739 of another one; of those above only it may be believed.
  EXPECT_EQ(heard.echo_count(), 1u);
  EXPECT_EQ(heard.disk_went_back(739), std::nullopt);
  EXPECT_EQ(heard.disk_went_back(738), (lost_decisions{2, 739}));
  one = hello_of(2, 7);
  one.heard = {{1, 0, 99, 6000}};
  heard.heard(one, 1700);
  EXPECT_EQ(heard.disk_went_back(739), std::nullopt) << "said to another session";
  EXPECT_EQ(heard.echo_age_ms(one), std::nullopt);
  one.heard.push_back({1, 40, 101, 0});
  EXPECT_EQ(heard.echo_age_ms(one), 40u);
}

// A node that was restarted may hear the last hellos of its own former session.
TEST(cluster_peers, a_double_is_one_that_goes_on)
{
  peers heard({CLUSTER, 10000, 3, 1, 101});
  hello one = hello_of(1, 9);
  one.session = 77;
  one.heard = {{1, 0, 101, 5000}};
  for (int64_t at = 1000; at <= 6000; at += 1000) {
    EXPECT_FALSE(heard.has_lasting_double(at));
    EXPECT_EQ(heard.heard(one, at), hello_kind::own_number);
    EXPECT_TRUE(heard.has_double(at));
  }
  EXPECT_EQ(heard.own_number_count(), 6u);
  EXPECT_TRUE(heard.has_lasting_double(10999));
  EXPECT_FALSE(heard.has_double(11000));
  EXPECT_EQ(heard.heard(one, 11000), hello_kind::own_number);
  EXPECT_FALSE(heard.has_lasting_double(11000));
  one.cluster.generation = 2;
  EXPECT_EQ(heard.heard(one, 11000), hello_kind::other_cluster) << "the machine that this one replaced in a reform";
  EXPECT_EQ(heard.disk_went_back(0), std::nullopt) << "it is no other member";
}

TEST(cluster_lead, needs_every_reason)
{
  using enum vrrp_state;
  const struct {
    lead_facts node;
    bool is_eligible;
    bool may_lead;
  } cases[] = {{{master, true, true, false, ""}, true, true},
               {{backup, true, true, false, ""}, true, false},
               {{fault, true, true, false, ""}, true, false},
               {{stop, true, true, false, ""}, true, false},
               {{unknown, true, true, false, ""}, true, false},
               {{master, false, true, false, ""}, false, false},
               {{master, true, false, false, ""}, false, false},
               {{master, true, true, true, ""}, false, false},
               {{master, true, true, false, "back"}, false, false},
               {{master, true, true, false, "", "new"}, false, false},
               {{master, true, true, false, "", "", false}, true, true},  // a full disk, like all others
               {{master, true, true, false, "", "", false, 2}, false, true}};
  for (const auto &c : cases) {
    EXPECT_EQ(could_lead(c.node), c.is_eligible && c.node.has_room && (c.may_lead || c.node.vrrp == backup));
    for (const auto &[answer, yes] : {std::pair(is_eligible(c.node), c.is_eligible), {may_lead(c.node), c.may_lead}}) {
      EXPECT_EQ(answer.yes, yes) << answer.reason;
      EXPECT_EQ(answer.reason.empty(), yes);
    }
  }
  for (const vrrp_state state : {master, backup, fault, stop}) {
    EXPECT_EQ(vrrp_state_of(vrrp_state_name(state)), state);
  }
  EXPECT_EQ(vrrp_state_of("unknown"), std::nullopt);
}

// The library takes an empty file for "not MASTER", and keepalived's scripts may run at the same time.
TEST(cluster_state_file, is_never_half)
{
  const scratch dir;
  const std::string path = dir.path("state");
  std::string error;
  EXPECT_EQ(state_word_read(path), "");
  ASSERT_TRUE(state_word_write(path, "MASTER", error)) << error;
  std::atomic<bool> ended{false};
  std::thread reader([&] {
    while (!ended) {
      const std::string word = state_word_read(path);
      EXPECT_TRUE(word == "MASTER" || word == "BACKUP") << word;
    }
  });
  const auto write_some = [&] {
    std::string why;
    for (int i = 0; i < 100; ++i) {
      EXPECT_TRUE(state_word_write(path, i % 2 == 0 ? "BACKUP" : "MASTER", why)) << why;
    }
  };
  std::thread writer(write_some);
  write_some();
  writer.join();
  ended = true;
  reader.join();
  EXPECT_EQ(dir.read("state").back(), '\n');
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path(".")), {}), 1) << "nothing is left behind";
  EXPECT_TRUE(step_down(path, error));
  EXPECT_EQ(state_word_read(path), "BACKUP");
  const std::string alone = dir.path(std::string(255, 's'));  // no temporary file can have a longer name
  std::ofstream(alone) << "MASTER\n";
  EXPECT_FALSE(state_word_write(alone, "BACKUP", error));
  EXPECT_TRUE(step_down(alone, error));
  EXPECT_EQ(state_word_read(alone), "");
  EXPECT_FALSE(state_word_write(dir.path("none/state"), "MASTER", error));
  EXPECT_EQ(error, dir.path("none/state") + ": No such file or directory");
}

TEST(cluster_register_watch, counts_whole_messages_of_its_cluster)
{
  register_watch watch(7, 9);
  const struct {
    uint32_t channel;
    uint64_t cluster_id;
    uint32_t build;
    std::vector<uint8_t> payload;
    uint32_t greatest;
  } cases[] = {{3, 7, 9, {0, 0, 0, 0, 5, 1, 0, 0, 1, 0, 0, 0}, 261},
               {3, 7, 9, {2, 0, 0, 0, 9, 0, 0, 0, 1, 0, 0, 0}, 261},
               {4, 7, 9, {0, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0, 0}, 261},
               {3, 8, 9, {0, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0, 0}, 261},
               {3, 7, 8, {0, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0, 0}, 261},
               {3, 7, 9, {6, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0, 0}, 261},
               {3, 7, 9, {0, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0}, 261},
               {3, 7, 9, {1, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0, 0}, 261},
               {3, 7, 9, {}, 261},
               {3, 7, 9, {4, 0, 0, 0, 5, 2, 0, 0, 1, 0, 0, 0}, 517}};
  for (const auto &c : cases) {
    watch.note({c.channel, 0, c.cluster_id, c.build, c.payload});
    EXPECT_EQ(watch.greatest(), c.greatest);
  }
}

namespace
{

/// Nodes of three whose hellos reach each other through the test.
struct played_node {
  played_node(uint32_t node, uint8_t history, uint32_t session) : name(history)
  {
    const auto facts = [this] {
      const std::lock_guard held(lock);
      ++asked;
      grown.notify_all();
      if (is_failing) {
        throw std::runtime_error("played");
      }
      own_facts now;
      now.decision = decision;
      now.decision_at_start = 49;
      now.position = position_at(n, name, 200);
      return now;
    };
    const auto hash = [this](const told_position &, uint64_t at) { return std::optional(hash_of(at, name, 200)); };
    const auto send = [this](std::string_view bytes) {
      const std::lock_guard held(lock);
      for (played_node *one : to) {
        one->service->receive(bytes);
      }
    };
    const auto changed = [this](const cluster_view &view) {
      const std::lock_guard held(lock);
      last = view;
      grown.notify_all();
    };
    hello_settings settings{CLUSTER, 10000, 3, node, session, std::chrono::milliseconds(5)};
    service = std::make_unique<hello_service>(settings, hello_functions{facts, nullptr, hash, send, changed});
  }
  void connect(const std::vector<played_node *> &all)
  {
    const std::lock_guard held(lock);
    to = all;
  }
  template <typename predicate>
  bool await(predicate reached)
  {
    std::unique_lock held(lock);
    return grown.wait_for(held, std::chrono::seconds(10), reached);
  }

  std::mutex lock;
  std::condition_variable grown;
  uint8_t name;
  uint64_t n = 300;
  uint32_t decision = 50;
  uint64_t asked = 0;
  bool is_failing = false;
  cluster_view last;
  std::vector<played_node *> to;
  std::unique_ptr<hello_service> service;
};

}  // namespace

TEST(cluster_hello_service, a_diverged_node_is_barred_and_one_whose_disk_went_back_is_told)
{
  played_node one(1, 0, 101), two(2, 0, 102), three(3, 4, 103), again(2, 0, 202);
  for (played_node *from : {&one, &two, &three}) {
    from->connect({&one, &two, &three});
  }
  for (played_node *each : {&one, &two, &three}) {
    each->service->start();
  }
  EXPECT_TRUE(three.await([&] { return three.last.barred.has_value(); }));
  EXPECT_TRUE(one.await([&] { return one.last.peers.size() == 2 && one.last.peers[1].verdict.n == 256; }));
  EXPECT_FALSE(one.service->view().barred);
  EXPECT_EQ(one.service->dropped(), 0u);
  one.service->receive("{}");
  EXPECT_EQ(one.service->dropped(), 1u);

  // A function that fails is asked again, and what is heard meanwhile is kept.
  {
    const std::lock_guard held(two.lock);
    two.is_failing = true;
    two.asked = 0;
  }
  EXPECT_TRUE(two.await([&] { return two.asked > 2; }));
  {
    const std::lock_guard held(two.lock);
    two.is_failing = false;
  }
  EXPECT_TRUE(two.await([&] { return two.last.echoes == 2; }));
  EXPECT_FALSE(two.service->view().disk_went_back) << "it told decision 50 in this session";

  // Its daemon begins anew, with the decision that it had at first.
  two.service->stop();
  for (played_node *from : {&one, &again, &three}) {
    from->connect({&one, &again, &three});
  }
  again.service->start();
  EXPECT_TRUE(again.await([&] { return again.last.disk_went_back && again.last.disk_went_back->decision == 50; }));
  for (played_node *each : {&one, &two, &three, &again}) {
    each->service->stop();
    each->service->receive("late");
  }
}

// A new node votes when it knows the first top that each node told it. One of a second ago could lack the question that
// the new node answered before it lost its disk.
TEST(cluster_hello_service, a_new_session_is_told_the_top_of_now)
{
  std::mutex lock;
  std::condition_variable grown;
  std::vector<uint32_t> told;
  uint32_t top = 50;
  hello_functions functions;
  functions.facts = [&] {
    const std::lock_guard held(lock);
    own_facts now;
    now.top = top;
    now.position = position_at(300);
    return now;
  };
  functions.own_hash = [](const told_position &, uint64_t) { return std::optional<chain_hash>(); };
  functions.send = [&](std::string_view bytes) {
    const std::lock_guard held(lock);
    told.push_back(hello_decode(bytes).value().top);
    grown.notify_all();
  };
  hello_service service({CLUSTER, 10000, 3, 1, 101, std::chrono::hours(1)}, functions);
  service.start();
  std::unique_lock held(lock);
  ASSERT_TRUE(grown.wait_for(held, std::chrono::seconds(10), [&] { return told.size() == 1; }));
  top = 51;
  held.unlock();
  service.receive(hello_encode(hello_of(2, 1)));
  held.lock();
  EXPECT_TRUE(grown.wait_for(held, std::chrono::seconds(10), [&] { return told.size() == 2; }));
  EXPECT_EQ(told.back(), 51u);
  held.unlock();
  service.stop();
}
