#include "submit/batcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <map>
#include <random>
#include <set>

#include "watched.h"

namespace
{

using namespace std::chrono_literals;
using kesh::item_fate;

constexpr uint64_t LIFE = 7;
using tag_list = std::vector<std::pair<uint64_t, uint32_t>>;  // sequence and attempt

/// A distribute that returns when the test says so.
class held_distribute
{
public:
  int operator()(std::string_view bytes)
  {
    kesh::payload content;
    std::string fault;
    EXPECT_TRUE(kesh::payload_decode(bytes, content, fault)) << fault;
    tag_list tags;
    for (const auto &one : content.items) {
      tags.emplace_back(one.sequence, one.attempt);
    }
    const size_t index = state.with([&] { return calls.push_back(tags), calls.size() - 1; });
    return state.await([&] { return is_over || verdicts.contains(index); },
                       [&] { return is_over ? -1 : verdicts[index]; });
  }

  /// Waits for the call, counted from 0.
  tag_list call(size_t index)
  {
    return state.await([&] { return calls.size() > index; }, [&] { return calls.at(index); });
  }
  void release(size_t index, int verdict)
  {
    state.with([&] { verdicts[index] = verdict; });
  }
  /// A test that failed must not hang.
  void end()
  {
    state.with([&] { is_over = true; });
  }
  size_t count()
  {
    return state.with([&] { return calls.size(); });
  }

private:
  watched state;
  std::vector<tag_list> calls;
  std::map<size_t, int> verdicts;
  bool is_over = false;
};

class result_log : public kesh::result_receiver
{
public:
  void on_results(uint64_t client, std::span<const kesh::item_result> results) noexcept override
  {
    state.with([&] {
      for (const auto &one : results) {
        EXPECT_TRUE(all.emplace(std::pair(client, one.number), one).second) << "two results for item " << one.number;
      }
    });
  }
  kesh::item_result of(uint64_t client, uint64_t number)
  {
    const std::pair key(client, number);
    return state.await([&] { return all.contains(key); }, [&] { return all[key]; });
  }
  size_t count()
  {
    return state.with([&] { return all.size(); });
  }

private:
  watched state;
  std::map<std::pair<uint64_t, uint64_t>, kesh::item_result> all;
};

class batcher_test : public testing::Test
{
protected:
  void TearDown() override { distribute.end(); }
  uint64_t client(std::chrono::nanoseconds timeout = 60s)
  {
    std::string refusal;
    const uint64_t id = lines.open_client({&results, timeout, false}, refusal);
    EXPECT_NE(id, 0u) << refusal;
    return id;
  }
  void push(uint64_t to, uint64_t number, size_t size = 4)
  {
    kesh::new_item one{number, std::string(size, 'x')};
    EXPECT_EQ(lines.push(to, {&one, 1}).taken, 1u);
  }
  void apply(uint64_t sequence, uint64_t line)
  {
    const kesh::applied_item one{sequence, line};
    lines.applied(1, LIFE, {&one, 1});
  }

  static constexpr size_t FULL = 1 << 20;  // what goes out beside another payload
  held_distribute distribute;
  result_log results;
  std::atomic<bool> is_active = true;
  kesh::batcher lines{1,
                      LIFE,
                      {},
                      {[this](std::string_view bytes) { return distribute(bytes); },
                       [this] { return is_active.load(); },
                       [](uint64_t sequence) { return sequence == 1 ? std::optional<uint64_t>(42) : std::nullopt; }}};
};

TEST_F(batcher_test, tells_the_applied_line_and_asks_for_what_a_snapshot_swallowed)
{
  const uint64_t a = client();
  push(a, 1);
  ASSERT_EQ(distribute.call(0).size(), 1u);
  const kesh::applied_item foreign{1, 9};
  lines.applied(2, LIFE, {&foreign, 1});
  lines.applied(1, LIFE - 1, {&foreign, 1});
  distribute.release(0, 0);
  EXPECT_EQ(results.of(a, 1).line, 42u);
  push(a, 2);
  apply(distribute.call(1).at(0).first, 43);
  EXPECT_EQ(results.of(a, 2).line, 43u);
  push(a, 3);  // goes out although the call for the item before it has not returned
  distribute.call(2);
  distribute.release(1, 0);
  distribute.release(2, 0);
  EXPECT_EQ(results.of(a, 3).fate, item_fate::unknown);
}

// The answer comes at the deadline, whatever the library does: also with both senders inside it.
TEST_F(batcher_test, keeps_deadlines_while_distribute_blocks)
{
  const uint64_t a = client(50ms), b = client(50ms), c = client(50ms);
  push(a, 1);
  distribute.call(0);
  push(b, 1, FULL);
  distribute.call(1);
  push(c, 1);
  EXPECT_EQ(results.of(c, 1).fate, item_fate::not_submitted);
  EXPECT_EQ(results.of(a, 1).fate, item_fate::unknown);
  EXPECT_EQ(results.of(b, 1).fate, item_fate::unknown);
  push(c, 2);  // sooner than anything that the clock waits for
  EXPECT_EQ(results.of(c, 2).fate, item_fate::not_submitted);
  distribute.release(0, 0);
  distribute.release(1, -1);
  const uint64_t d = client();
  push(d, 1);
  EXPECT_EQ(distribute.call(2).at(0).second, 1u);  // new: b's item was not repeated
  distribute.release(2, 0);
}

// One call that returns makes room for two payloads.
TEST_F(batcher_test, wakes_the_other_sender)
{
  const uint64_t a = client(), b = client(), c = client(), d = client();
  push(a, 1);
  distribute.call(0);
  push(b, 1, FULL);
  distribute.call(1);
  distribute.release(1, 0);
  results.of(b, 1);
  push(c, 1, FULL);
  push(d, 1, FULL);
  distribute.release(0, 0);
  distribute.call(3);
}

TEST_F(batcher_test, repeats_under_the_same_sequence_once_active_again)
{
  const uint64_t a = client();
  push(a, 1);
  const auto first = distribute.call(0).at(0);
  is_active = false;
  distribute.release(0, -1);
  const uint64_t b = client(50ms);
  push(b, 1);
  EXPECT_EQ(results.of(b, 1).fate, item_fate::not_submitted);
  EXPECT_EQ(distribute.count(), 1u);
  is_active = true;
  lines.activity_changed();
  EXPECT_EQ(distribute.call(1), (tag_list{{first.first, 2}}));
  apply(first.first, 50);
  EXPECT_EQ(results.of(a, 1).attempts, 2u);
  distribute.release(1, 0);
}

TEST_F(batcher_test, stops_while_distribute_blocks)
{
  const uint64_t a = client(), b = client(), c = client();
  push(a, 1);
  distribute.call(0);
  push(b, 1, FULL);
  const uint64_t sequence = distribute.call(1).at(0).first;
  push(c, 1);
  lines.stop();
  EXPECT_EQ(results.of(c, 1).fate, item_fate::not_submitted);
  EXPECT_EQ(results.count(), 1u);
  apply(sequence, 51);
  EXPECT_EQ(results.of(b, 1).line, 51u);
  std::string refusal;
  EXPECT_EQ(lines.open_client({&results, 1s, false}, refusal), 0u);
  distribute.release(0, -1);
  distribute.release(1, 0);
  lines.join();
  EXPECT_EQ(results.of(a, 1).fate, item_fate::unknown);
}

/// Applies payloads as the nodes do, which know a repeated item only if it was in the last two payloads. Some payloads
/// fail, some fail and are applied all the same, of some nobody tells.
class forgetful_journal
{
public:
  int operator()(std::string_view bytes)
  {
    kesh::payload content;
    std::string fault;
    EXPECT_TRUE(kesh::payload_decode(bytes, content, fault)) << fault;
    std::vector<kesh::applied_item> applied;
    const unsigned fate = state.with([&] {
      const unsigned dice = random() % 16;
      if (dice > 0) {
        apply(content, applied);
      }
      return dice;
    });
    if (fate > 2) {
      lines->applied(1, LIFE, applied);
    }
    return fate == 0 || fate == 1 ? -1 : 0;
  }
  std::optional<uint64_t> find_line(uint64_t sequence)
  {
    return state.with([&] { return line_of.contains(sequence) ? std::optional(line_of[sequence]) : std::nullopt; });
  }

  kesh::batcher *lines = nullptr;

private:
  void apply(const kesh::payload &content, std::vector<kesh::applied_item> &applied)
  {
    std::set<uint64_t> sequences;
    for (const auto &one : content.items) {
      const auto [at, is_new] = line_of.emplace(one.sequence, line_of.size() + 1);
      const size_t gap = one.bytes.find(' ');
      if (is_new) {
        EXPECT_EQ(std::stoull(std::string(one.bytes.substr(gap))), ++last_of[std::string(one.bytes.substr(0, gap))]);
      } else {
        EXPECT_TRUE(last[0].contains(one.sequence) || last[1].contains(one.sequence)) << "would be applied twice";
      }
      sequences.insert(one.sequence);
      applied.push_back({one.sequence, at->second});
    }
    last.pop_front();
    last.push_back(sequences);
  }

  watched state;
  std::mt19937 random{20};
  std::map<uint64_t, uint64_t> line_of;     // by sequence
  std::map<std::string, uint64_t> last_of;  // client, number of its last applied item
  std::deque<std::set<uint64_t>> last{{}, {}};
};

// Each item has one result, none is applied twice, and each client's items are applied in their order.
TEST(batcher, keeps_order_and_count_under_random_failures)
{
  constexpr size_t CLIENTS = 12, ITEMS = 200, WINDOW = 8;
  forgetful_journal journal;
  result_log results;
  kesh::batcher lines(1, LIFE, {.payload_bytes = 1000},
                      {[&](std::string_view bytes) { return journal(bytes); }, [] { return true; },
                       [&](uint64_t sequence) { return journal.find_line(sequence); }});
  journal.lines = &lines;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < CLIENTS; i++) {
    threads.emplace_back([&, i] {
      std::string refusal;
      const uint64_t id = lines.open_client({&results, 60s, true}, refusal);
      for (size_t number = 1; number <= ITEMS; number++) {
        kesh::new_item one{number, std::to_string(i) + ' ' + std::to_string(number)};
        ASSERT_EQ(lines.push(id, {&one, 1}).taken, 1u);
        EXPECT_EQ(results.of(id, number > WINDOW ? number - WINDOW : 1).fate, item_fate::applied);
      }
      EXPECT_EQ(results.of(id, ITEMS).fate, item_fate::applied);
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  lines.stop();
  lines.join();
  EXPECT_EQ(results.count(), CLIENTS * ITEMS);
  EXPECT_EQ(lines.counts().open, 0u);
}

}  // namespace
