#include "submit/batcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>

namespace
{

using namespace std::chrono_literals;
using kesh::item_fate;

constexpr uint64_t LIFE = 7;
constexpr auto PATIENCE = 20s;

/// A distribute that returns when the test says so.
class held_distribute
{
public:
  int operator()(std::string_view bytes)
  {
    kesh::payload content;
    std::string fault;
    EXPECT_TRUE(kesh::payload_decode(bytes, content, fault)) << fault;
    std::vector<std::pair<uint64_t, uint32_t>> tags;
    for (const auto &one : content.items) {
      tags.emplace_back(one.sequence, one.attempt);
    }
    std::unique_lock lock(guard);
    const size_t index = calls.size();
    calls.push_back(tags);
    changed.notify_all();
    changed.wait(lock, [&] { return is_over || verdicts.contains(index); });
    return verdicts.contains(index) ? verdicts[index] : -1;
  }

  /// Waits for the call, counted from 0. Returns the items' sequences and attempts.
  std::vector<std::pair<uint64_t, uint32_t>> call(size_t index)
  {
    std::unique_lock lock(guard);
    EXPECT_TRUE(changed.wait_for(lock, PATIENCE, [&] { return calls.size() > index; }));
    return calls.size() > index ? calls[index] : decltype(calls)::value_type{};
  }
  void release(size_t index, int verdict)
  {
    const std::lock_guard lock(guard);
    verdicts[index] = verdict;
    changed.notify_all();
  }
  /// A test that failed must not hang.
  void end()
  {
    const std::lock_guard lock(guard);
    is_over = true;
    changed.notify_all();
  }
  size_t count()
  {
    const std::lock_guard lock(guard);
    return calls.size();
  }

private:
  std::mutex guard;
  std::condition_variable changed;
  std::vector<std::vector<std::pair<uint64_t, uint32_t>>> calls;
  std::map<size_t, int> verdicts;
  bool is_over = false;
};

class result_log : public kesh::result_receiver
{
public:
  void on_results(uint64_t client, std::span<const kesh::item_result> results) noexcept override
  {
    const std::lock_guard lock(guard);
    for (const auto &one : results) {
      const bool is_first = all.emplace(std::pair(client, one.number), one).second;
      EXPECT_TRUE(is_first) << "two results for item " << one.number;
    }
    changed.notify_all();
  }
  kesh::item_result of(uint64_t client, uint64_t number)
  {
    std::unique_lock lock(guard);
    const std::pair key(client, number);
    EXPECT_TRUE(changed.wait_for(lock, PATIENCE, [&] { return all.contains(key); }));
    return all[key];
  }
  size_t count()
  {
    const std::lock_guard lock(guard);
    return all.size();
  }

private:
  std::mutex guard;
  std::condition_variable changed;
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
  void push(uint64_t to, uint64_t number)
  {
    std::vector<kesh::new_item> items;
    items.push_back({number, "text"});
    EXPECT_EQ(lines.push(to, items).taken, 1u);
  }
  void apply(uint64_t sequence, uint64_t line)
  {
    const kesh::applied_item one{sequence, line};
    lines.applied(1, LIFE, {&one, 1});
  }

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
  push(b, 1);
  distribute.call(1);
  push(c, 1);
  EXPECT_EQ(results.of(c, 1).fate, item_fate::not_submitted);
  EXPECT_EQ(results.of(a, 1).fate, item_fate::unknown);
  EXPECT_EQ(results.of(b, 1).fate, item_fate::unknown);
  distribute.release(0, 0);
  distribute.release(1, -1);
  const uint64_t d = client();
  push(d, 1);
  EXPECT_EQ(distribute.call(2).at(0).second, 1u);  // new: b's item was not repeated
  distribute.release(2, 0);
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
  EXPECT_EQ(distribute.call(1), (decltype(distribute.call(1)){{first.first, 2}}));
  apply(first.first, 50);
  EXPECT_EQ(results.of(a, 1).attempts, 2u);
  distribute.release(1, 0);
}

TEST_F(batcher_test, stops_while_distribute_blocks)
{
  const uint64_t a = client(), b = client(), c = client();
  push(a, 1);
  distribute.call(0);
  push(b, 1);
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

// Payloads that fail, are applied although they failed, or end without a word of it: each item has one result, no item
// is applied twice within two payloads, and each client's items are applied in their order.
TEST(batcher, keeps_order_and_count_under_random_failures)
{
  constexpr size_t CLIENTS = 12, ITEMS = 200, WINDOW = 8;
  std::mutex guard;
  std::mt19937 random(20);
  std::map<uint64_t, uint64_t> line_of;     // sequence, line
  std::map<std::string, uint64_t> last_of;  // client, number of its last applied item
  std::atomic<int> under_way = 0;
  kesh::batcher *target = nullptr;
  const auto distribute = [&](std::string_view bytes) {
    EXPECT_LE(++under_way, 2);
    kesh::payload content;
    std::string fault;
    EXPECT_TRUE(kesh::payload_decode(bytes, content, fault));
    std::vector<kesh::applied_item> applied;
    unsigned dice = 0;
    {
      const std::lock_guard lock(guard);
      dice = random() % 16;
      for (const auto &one : content.items) {
        if (dice == 0) {
          continue;  // fails, and is not applied
        }
        const auto [at, is_new] = line_of.emplace(one.sequence, line_of.size() + 1);
        const size_t gap = one.bytes.find(' ');
        uint64_t &last = last_of[std::string(one.bytes.substr(0, gap))];
        if (is_new) {
          EXPECT_EQ(std::stoull(std::string(one.bytes.substr(gap))), ++last);
        }
        applied.push_back({one.sequence, at->second});
      }
    }
    if (dice > 1) {  // 1: no word of it
      target->applied(1, LIFE, applied);
    }
    under_way--;
    return dice <= 2 && dice != 1 ? -1 : 0;
  };
  const auto find_line = [&](uint64_t sequence) -> std::optional<uint64_t> {
    const std::lock_guard lock(guard);
    const auto found = line_of.find(sequence);
    return found == line_of.end() ? std::nullopt : std::optional(found->second);
  };
  result_log results;
  kesh::batcher lines(1, LIFE, {.payload_bytes = 1000}, {distribute, [] { return true; }, find_line});
  target = &lines;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < CLIENTS; i++) {
    threads.emplace_back([&, i] {
      std::string refusal;
      const uint64_t id = lines.open_client({&results, 60s, true}, refusal);
      for (size_t number = 1; number <= ITEMS; number++) {
        std::vector<kesh::new_item> items;
        items.push_back({number, std::to_string(i) + ' ' + std::to_string(number)});
        ASSERT_EQ(lines.push(id, items).taken, 1u);
        if (number > WINDOW) {
          EXPECT_EQ(results.of(id, number - WINDOW).fate, item_fate::applied);
        }
      }
      EXPECT_EQ(results.of(id, ITEMS).fate, item_fate::applied);
      lines.close_client(id);
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  lines.stop();
  lines.join();
  EXPECT_EQ(results.count(), CLIENTS * ITEMS);
  EXPECT_EQ(lines.counts().applied, CLIENTS * ITEMS);
  EXPECT_EQ(lines.counts().open, 0u);
}

}  // namespace
