// What is applied, repeated, delivered again, kept and read.
#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <thread>

#include "items/chain_hash.h"
#include "store/store_reader.h"
#include "store/store_upkeep.h"
#include "store_fixture.h"

namespace
{

using namespace store_testing;
using kesh::adoption_kind;
using kesh::item_outcome;
using std::chrono::steady_clock;

class store_test : public store_fixture
{
};

TEST_F(store_test, applies_and_compares_what_is_delivered_again)
{
  auto lines = open("a");
  EXPECT_EQ(kesh::hash_text(lines->position().hash),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  const std::vector<std::string> payloads = {bytes_of(2, {{1, 1, "a"}, {2, 1, "no-op"}, {3, 1, ""}}),
                                             bytes_of(3, {{1, 1, std::string("\0\xff\n", 3)}}), bytes_of(2, {{4}})};
  for (const auto &one : payloads) {
    apply(*lines, one);
  }
  const auto before = lines->position();
  EXPECT_EQ(before.n, 3u);
  EXPECT_EQ(before.lines, 4u);
  EXPECT_EQ(
      before.hash,
      kesh::chain_next(kesh::chain_next(kesh::chain_next(kesh::chain_start(), payloads[0]), payloads[1]), payloads[2]));

  lines.reset();
  lines = open("a");
  EXPECT_EQ(lines->position().hash, before.hash);
  lines->set_cursor(1);
  const auto again = apply(*lines, payloads[0]);
  EXPECT_TRUE(again.is_redelivered);
  EXPECT_EQ(again.items, (std::vector<item_outcome>{{1, 1, 1, false}, {2, 1, 0, false}, {3, 1, 2, false}}));
  EXPECT_THROW(state_of(*lines), kesh::store_failure) << "the store is ahead of the order";
  apply(*lines, payloads[1]);
  EXPECT_EQ(lines->position().n, 3u);

  // Another payload than row 3: the store says so for good, and takes nothing more.
  EXPECT_THROW(apply(*lines, payloads[1]), kesh::store_failure);
  lines.reset();
  lines = open("a");
  EXPECT_NE(lines->position().incomplete, "");
  EXPECT_EQ(lines->position().hash, before.hash);
  EXPECT_THROW(apply(*lines, payloads[1]), kesh::store_failure);
  lines->set_cursor(lines->position().n + 1);
  EXPECT_THROW(state_of(*lines), kesh::store_failure) << "its gap must not travel";
}

TEST_F(store_test, knows_repeats_of_the_last_two_payloads)
{
  auto lines = open("a");
  apply(*lines, bytes_of(2, {{1}, {2, 1, "no-op"}}));
  apply(*lines, bytes_of(3, {{1}}));  // another origin, the same sequence
  const std::vector<item_outcome> expected = {{2, 2, 0, true}, {1, 3, 1, true}, {3, 1, 3, false}};
  const auto again = apply(*lines, bytes_of(2, {{2, 2, "no-op"}, {1, 3}, {3}}));
  EXPECT_EQ(again.items, expected);
  EXPECT_EQ(lines->find_line(2, LIFE, 1), 1u);
  EXPECT_EQ(lines->find_line(2, LIFE + 1, 1), std::nullopt);

  lines.reset();
  lines = open("a");  // the window is read back
  EXPECT_EQ(apply(*lines, bytes_of(2, {{1, 4}})).items, (std::vector<item_outcome>{{1, 4, 1, true}}));
  EXPECT_EQ(lines->position().lines, 3u);
  apply(*lines, bytes_of(2, {{4}}));
  apply(*lines, bytes_of(2, {{5}}));
  EXPECT_EQ(lines->find_line(2, LIFE, 1), std::nullopt) << "it stands in none of the last two any more";
  EXPECT_EQ(lines->find_line(3, LIFE, 1), 2u);
}

// The window must be the same on all nodes, whatever one has removed or never got.
TEST_F(store_test, keeps_the_window_of_removed_and_bare_rows)
{
  state_max = 2000;
  auto lines = open("a");
  apply(*lines, bytes_of(3, {{8}, {9, 1, "no-op"}}));
  apply_lines(*lines, 1, 700);
  while (lines->retention_step({.lines = 1, .bytes = 0, .age_s = 0}, 0)) {
  }
  EXPECT_EQ(lines->position().first_n, 102u);
  auto other = open("b");
  apply(*other, bytes_of(4, {{1}}));  // so the state replaces it
  EXPECT_EQ(adopt(*other, state_of(*lines)).kind, adoption_kind::replaced);
  lines.reset();
  lines = open("a");
  other.reset();
  other = open("b");
  for (auto *one : {&lines, &other}) {
    EXPECT_EQ(apply(**one, bytes_of(3, {{8, 2}})).items, (std::vector<item_outcome>{{8, 2, 1, true}}));
    apply(**one, bytes_of(3, {{10}}));
    EXPECT_EQ((*one)->find_line(3, LIFE, 9), std::nullopt);
    one->reset();
    *one = open(one == &lines ? "a" : "b");
    EXPECT_EQ((*one)->find_line(3, LIFE, 9), std::nullopt);
    EXPECT_EQ((*one)->find_line(3, LIFE, 8), 1u);
  }
  expect_same(*lines, *other);
  expect_sound(path("a"));
  expect_sound(path("b"));
}

TEST_F(store_test, removes_the_oldest_but_never_the_newest_600)
{
  const struct {
    const char *what;
    kesh::retention keep;
    uint64_t first_n;
  } cases[] = {{"nothing", {0, 0, 0}, 1},
               {"lines", {1300, 0, 0}, 51},
               {"bytes", {0, 650 * (17 + 2 * (17 + 4)), 0}, 51},
               {"age, all of it", {0, 0, 10}, 101},
               {"one line", {1, 0, 0}, 101}};
  auto lines = open("a");
  for (uint64_t i = 1; i <= 700; ++i) {
    apply(*lines, bytes_of(2, {{2 * i}, {2 * i + 1}}));
  }
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    while (lines->retention_step(c.keep, kesh::seconds_now() + 100)) {
    }
    const auto now = lines->position();
    EXPECT_EQ(now.first_n, c.first_n);
    EXPECT_EQ(now.first_line, 2 * c.first_n - 1);
    const auto first = kesh::store_read_lines(*lines, 1, 1, 1000);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].line, now.first_line);
    EXPECT_EQ(now.bytes, (701 - c.first_n) * (17 + 2 * (17 + 4)));
  }
  expect_sound(path("a"));
  EXPECT_THROW(lines->set_cursor(100), kesh::store_failure);
}

// A reader follows while lines come, rows go, the WAL is moved, and a state puts another database in place.
TEST_F(store_test, is_followed_while_it_changes)
{
  state_max = 4000;
  auto ahead = open("b");
  apply_lines(*ahead, 1, 1000, "of b");
  const std::string state = state_of(*ahead);
  auto lines = open("a");
  apply_lines(*lines, 1, 700);

  std::vector<kesh::store_line> seen;
  std::thread follower([&] {
    uint64_t next = 1;
    const auto deadline = steady_clock::now() + std::chrono::seconds(30);
    while (next <= 1010) {
      const auto at = lines->position();
      const auto some = kesh::store_read_lines(*lines, next, 50, 1 << 20);
      seen.insert(seen.end(), some.begin(), some.end());
      next = some.empty() ? next : some.back().line + 1;
      if (some.empty() && at.lines < next && !lines->wait_change(at.lines, at.generation, deadline)) {
        return;
      }
    }
  });
  kesh::store_upkeep upkeep;
  upkeep.start(*lines, {{.lines = 10, .bytes = 0, .age_s = 0}, std::chrono::milliseconds(1)});
  apply_lines(*lines, 701, 800);
  EXPECT_EQ(adopt(*lines, state).kind, adoption_kind::replaced);
  apply_lines(*lines, 1001, 1010);
  follower.join();
  upkeep.stop();

  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back().line, 1010u);
  for (size_t i = 1; i < seen.size(); ++i) {
    EXPECT_LT(seen[i - 1].line, seen[i].line);
  }
  EXPECT_EQ(seen.back().sequence, 1010u);
  EXPECT_EQ(seen.back().text, "text");
  expect_sound(path("a"));
}

TEST_F(store_test, ends_waits)
{
  auto lines = open("a");
  std::thread waiter([&] { EXPECT_FALSE(lines->wait_change(0, 0, steady_clock::time_point::max())); });
  lines->end_waits();
  waiter.join();
}

#ifndef VX_SANITIZED
constexpr size_t STACK_SIZE = 64 * 1024;

/// Runs `work` on a hook's stack. Returns how much of it was used.
template <typename work>
size_t stack_use(const work &what)
{
  constexpr int PAINT = 0xa5;
  void *stack = mmap(nullptr, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memset(stack, PAINT, STACK_SIZE);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack, STACK_SIZE);
  pthread_t thread;
  const auto run = [](void *context) -> void * {
    (*static_cast<const work *>(context))();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, run, const_cast<work *>(&what)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  const auto *bytes = static_cast<const uint8_t *>(stack);
  size_t unused = 0;
  while (unused < STACK_SIZE && bytes[unused] == PAINT) {
    ++unused;
  }
  munmap(stack, STACK_SIZE);
  return STACK_SIZE - unused;
}

TEST_F(store_test, needs_less_than_half_of_a_hooks_stack)
{
  auto lines = open("a");
  auto other = open("b");
  apply_lines(*other, 1, 3, "of b");
  std::string state;
  const struct {
    const char *what;
    std::function<void()> work;
  } cases[] = {{"apply", [&] { apply_lines(*lines, 1, 600, std::string(5000, 'x')); }},
               {"encode", [&] { state = state_of(*lines); }},
               {"replace", [&] { EXPECT_EQ(adopt(*other, state).kind, adoption_kind::replaced); }},
               {"open", [&] {
                  other.reset();
                  other = open("b");
                }}};
  for (const auto &c : cases) {
    const size_t used = stack_use(c.work);
    RecordProperty(c.what, static_cast<int>(used));
    EXPECT_LT(used, STACK_SIZE / 2) << c.what;
  }
}
#endif

}  // namespace
