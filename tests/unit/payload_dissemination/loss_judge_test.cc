// The judge of losses, by tables and by enumeration.

#include "payload_dissemination/loss_judge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <vector>

namespace
{

constexpr id_entry ENTRY = {.sender = 2, .msg_id = 10};
constexpr int64_t MS = 1000;

// One cluster as node 1 sees it; its pull-thread looks every 100 ms and asks when it is due.
class scene
{
public:
  explicit scene(uint32_t nodes, bool is_held = false) : nodes_(nodes)
  {
    judge.start(nodes, 1);
    judge.seeks(ENTRY, is_held);
    ask();
  }
  void ask()
  {
    judge.looked(now_us);
    if (judge.is_request_due(now_us)) {
      judge.requested(now_us);
    }
  }
  // Time in which the pull-thread runs. True if it found the entry lost on the way.
  bool run(int64_t us)
  {
    bool is_lost = false;
    for (const int64_t end_us = now_us + us; now_us < end_us;) {
      now_us = std::min(now_us + look_us, end_us);
      judge.looked(now_us);
      is_lost = is_lost || judge.judge(now_us).is_lost;
      ask();
    }
    return is_lost;
  }
  void freeze(int64_t us) { now_us += us; }
  void lacks(std::initializer_list<uint32_t> nodes)
  {
    for (const uint32_t node : nodes) {
      judge.lacks(node, ENTRY);
      judge.is_not_ahead(node);
    }
  }
  // Whole seconds, in each of which these answer the request that begins it.
  bool seconds(int count, std::initializer_list<uint32_t> lacking)
  {
    bool is_lost = false;
    for (int i = 0; i < count; ++i) {
      lacks(lacking);
      is_lost = run(loss_judge::REQUEST_PERIOD_US) || is_lost;
    }
    return is_lost;
  }
  [[nodiscard]] bool is_lost() const { return judge.judge(now_us).is_lost; }
  [[nodiscard]] uint32_t nodes() const { return nodes_; }

  loss_judge judge;
  int64_t now_us = 1000 * loss_judge::REQUEST_PERIOD_US;
  int64_t look_us = loss_judge::LOOK_PERIOD_US;

private:
  uint32_t nodes_;
};

// Each row was measured once on a judge that got it wrong: an acknowledged payload was skipped, or a lost one held a
// node up.
TEST(loss_judge, tells_the_lost_from_the_late)
{
  const struct {
    const char *what;
    uint32_t nodes;
    std::function<bool(scene &)> play;  // whether the entry was found lost
    bool is_lost;
  } cases[] = {
      {"both others lack it", 3,
       [](scene &s) {
         return s.seconds(1, {2, 3});
       },
       true},
      {"one lacks it, the other is frozen for two seconds and holds 250 payloads", 3,
       [](scene &s) {
         bool is_lost = false;
         for (uint32_t id = 10; id < 260; ++id) {
           const id_entry next = {.sender = 2, .msg_id = id};
           s.judge.seeks(next);
           s.ask();
           for (int turn = 0; turn < 2; ++turn) {
             s.judge.lacks(2, next);
             s.judge.is_not_ahead(2);
             is_lost = s.run(1000 * MS) || is_lost;
           }
           s.judge.holds(3, next);
         }
         return is_lost;
       },
       false},
      {"cut off for 29 s while both others go on to the next log; one datagram is lost after the cut", 3,
       [](scene &s) {
         bool is_lost = s.run(29000 * MS);
         s.judge.lacks(2, ENTRY);
         s.judge.lacks(3, ENTRY);  // no word: their decision is newer
         return s.run(5000 * MS) || is_lost;
       },
       false},
      {"cut off for a minute, then one of the others answers", 3,
       [](scene &s) { return s.run(60000 * MS) || s.seconds(29, {2}); }, false},
      {"a dead leader's payload: the other live node lacks it, through 30 requests", 3,
       [](scene &s) { return !s.seconds(28, {2}) && s.seconds(2, {2}); }, true},
      {"the same, but this node has a file of it that it cannot read: half a quorum held it", 3,
       [](scene &s) {
         s.judge.seeks(ENTRY, true);
         return s.seconds(100, {2});
       },
       false},
      {"all others lack what this node cannot read", 3,
       [](scene &s) {
         s.judge.seeks(ENTRY, true);
         return s.seconds(1, {2, 3});
       },
       true},
      {"the next entry of the same dead node takes one request, not 30", 3,
       [](scene &s) {
         if (!s.seconds(30, {2})) {
           return false;
         }
         const id_entry next = {.sender = 2, .msg_id = 11};
         s.judge.seeks(next);
         s.ask();
         s.judge.lacks(2, next);
         s.judge.is_not_ahead(2);
         return s.run(1100 * MS);
       },
       true},
      {"the same, but it shows up", 3,
       [](scene &s) {
         s.seconds(30, {2});
         s.judge.heard(3);
         return s.seconds(20, {2});
       },
       false},
      {"this node was frozen for 31 s; two MISSING overtake the holder's DATA", 5,
       [](scene &s) {
         s.lacks({2, 3});
         s.freeze(31000 * MS);
         s.lacks({2, 3});
         const bool is_lost = s.is_lost() || s.run(100 * MS);
         s.judge.holds(4, ENTRY);
         return is_lost;
       },
       false},
      {"frozen with every answer in hand, the newer decision waits behind them", 3,
       [](scene &s) {
         s.lacks({2, 3});
         s.freeze(31000 * MS);
         s.judge.looked(s.now_us);
         return s.is_lost();
       },
       false},
      {"seconds without a quorum's answers count nothing", 5,
       [](scene &s) {
         return s.seconds(100, {2}) || s.seconds(29, {2, 3});
       },
       false},
      {"half of four nodes is no quorum", 4, [](scene &s) { return s.seconds(100, {2}); }, false},
      {"the latest of DATA, COMPLETE and MISSING counts: it got it meanwhile", 3,
       [](scene &s) {
         s.lacks({2, 3});
         s.judge.holds(3, ENTRY);
         return s.run(900 * MS);
       },
       false},
      {"the latest counts: it lost it meanwhile", 3,
       [](scene &s) {
         s.judge.holds(3, ENTRY);
         s.lacks({2, 3});
         return s.run(900 * MS);
       },
       true},
      {"what was said before the answer tells nothing", 3,
       [](scene &s) {
         for (const uint32_t node : {2u, 3u}) {
           s.judge.is_not_ahead(node);
           s.judge.lacks(node, ENTRY);
         }
         return s.run(900 * MS);
       },
       false},
      {"answers about another entry tell nothing", 3,
       [](scene &s) {
         for (const uint32_t node : {2u, 3u}) {
           s.judge.lacks(node, {.sender = 3, .msg_id = 10});
           s.judge.is_not_ahead(node);
         }
         return s.run(900 * MS);
       },
       false},
      {"decisions keep coming", 3,
       [](scene &s) {
         bool is_lost = false;
         for (int i = 0; i < 100; ++i) {
           s.lacks({2, 3});
           s.judge.decided(s.now_us + 50 * MS);
           is_lost = s.run(100 * MS) && i < 99 ? true : is_lost;
         }
         return is_lost;
       },
       false},
      {"a message is being handled, perhaps a decision waits behind it", 3,
       [](scene &s) {
         s.judge.message_begins();
         return s.seconds(5, {2, 3});
       },
       false},
      {"alone", 1, [](scene &s) { return s.is_lost(); }, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    scene s(c.nodes);
    EXPECT_EQ(c.play(s), c.is_lost);
  }
}

// What can happen, in any order.
enum class kind { lacks, word, holds, heard, second, thirty_seconds, freeze, decided };
struct event {
  kind what;
  uint32_t node;
};

void play(scene &s, event e)
{
  switch (e.what) {
  case kind::lacks:
    s.judge.lacks(e.node, ENTRY);
    break;
  case kind::word:
    s.judge.is_not_ahead(e.node);
    break;
  case kind::holds:
    s.judge.holds(e.node, ENTRY);
    break;
  case kind::heard:
    s.judge.heard(e.node);
    break;
  case kind::second:
    s.run(loss_judge::REQUEST_PERIOD_US);
    break;
  case kind::thirty_seconds:
    s.seconds(30, {2, 3});  // a quorum of up to five nodes answers
    break;
  case kind::freeze:
    s.freeze(31 * loss_judge::REQUEST_PERIOD_US);
    s.judge.looked(s.now_us);
    break;
  case kind::decided:
    s.judge.decided(s.now_us);
    break;
  }
}

// A node that holds the entry and was heard within the last 30 answered seconds.
bool has_live_holder(const std::vector<event> &events, uint32_t nodes)
{
  for (uint32_t node = 2; node <= nodes; ++node) {
    bool is_holder = false;
    bool is_recent = false;
    for (const event &e : events) {
      const bool is_answer_of_all = e.what == kind::thirty_seconds;
      if (e.node == node || (is_answer_of_all && node <= 3)) {
        is_holder = (is_holder || e.what == kind::holds) && e.what != kind::lacks && !is_answer_of_all;
        is_recent = true;
      } else if (is_answer_of_all) {
        is_recent = false;
      }
    }
    if (is_holder && is_recent) {
      return true;
    }
  }
  return false;
}

// With durable payloads a quorum holds it, and none of them ever says that it lacks it. Node 1 may be one of them.
bool may_be_on_a_quorum_of_disks(const std::vector<event> &events, uint32_t nodes, bool is_held)
{
  uint32_t lacking = 0;  // bit n - 1: node n
  for (const event &e : events) {
    lacking |= e.what == kind::lacks ? 1u << (e.node - 1) : e.what == kind::thirty_seconds ? 0b110u : 0u;
  }
  return nodes - (is_held ? 0 : 1) - static_cast<uint32_t>(std::popcount(lacking)) >= nodes / 2 + 1;
}

// All sequences of up to `depth` events; nodes that have not acted yet are alike, so only the first of
// them acts.
class enumeration
{
public:
  enumeration(uint32_t nodes, size_t depth, bool is_held) : nodes_(nodes), depth_(depth), is_held_(is_held) {}
  /// All sequences that begin with `first`.
  void run(event first)
  {
    scene s(nodes_, is_held_);
    s.look_us = 400 * MS;  // below the gap
    check(s);
    step(s, first, first.node == 0 ? 2 : 3);
  }
  size_t count = 0;

private:
  void check(const scene &s)
  {
    ++count;
    if (has_live_holder(events_, nodes_)) {
      ASSERT_FALSE(s.is_lost()) << "lost while a holder was heard";
    }
    if (may_be_on_a_quorum_of_disks(events_, nodes_, is_held_)) {
      ASSERT_FALSE(s.is_lost()) << "lost though a quorum holds it";
    }
    // From now on a majority answers, and nobody else is heard: the entry is lost within a bound.
    if (events_.size() == depth_ && !is_held_) {
      scene rest = s;
      bool is_lost = false;
      for (int i = 0; i < 33 && !is_lost; ++i) {
        is_lost = nodes_ < 4 ? rest.seconds(1, {2}) : rest.seconds(1, {2, 3});
      }
      ASSERT_TRUE(is_lost) << "neither fetched nor lost";
    }
  }
  void extend(const scene &s, uint32_t next_node)
  {
    check(s);
    if (events_.size() == depth_ || ::testing::Test::HasFatalFailure()) {
      return;
    }
    for (const kind what : {kind::second, kind::thirty_seconds, kind::freeze, kind::decided}) {
      step(s, {what, 0}, next_node);
    }
    for (uint32_t node = 2; node <= std::min(next_node, nodes_); ++node) {
      for (const kind what : {kind::lacks, kind::word, kind::holds, kind::heard}) {
        step(s, {what, node}, std::max(next_node, node + 1));
      }
    }
  }
  void step(const scene &s, event e, uint32_t next_node)
  {
    scene after = s;
    play(after, e);
    events_.push_back(e);
    // Nodes 2 and 3 answer in thirty_seconds: they are like no others afterwards.
    extend(after, e.what == kind::thirty_seconds ? std::max(next_node, 4u) : next_node);
    events_.pop_back();
  }

  uint32_t nodes_;
  size_t depth_;
  bool is_held_;
  std::vector<event> events_;
};

// Builds that are slow by design walk one event less.
#if !defined(__OPTIMIZE__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
constexpr size_t DEPTH = 5;
#else
constexpr size_t DEPTH = 6;
#endif

// One test per first event, so that none takes long.
class loss_judge_of : public ::testing::TestWithParam<std::tuple<uint32_t, event>>
{
};

TEST_P(loss_judge_of, never_loses_what_a_live_node_holds_and_always_comes_to_an_end)
{
  const auto [nodes, first] = GetParam();
  for (const bool is_held : {false, true}) {
    enumeration all(nodes, is_held ? DEPTH - 1 : DEPTH, is_held);
    all.run(first);
    EXPECT_GT(all.count, is_held ? 1000u : 10000u);
  }
}
INSTANTIATE_TEST_SUITE_P(nodes, loss_judge_of,
                         ::testing::Combine(::testing::Values(3, 4, 5),
                                            ::testing::Values(event{kind::second, 0}, event{kind::thirty_seconds, 0},
                                                              event{kind::freeze, 0}, event{kind::decided, 0},
                                                              event{kind::lacks, 2}, event{kind::word, 2},
                                                              event{kind::holds, 2}, event{kind::heard, 2})));

}  // namespace
