#include "messaging_nodes.h"

namespace
{

constexpr uint32_t PIECES = 7490;  // of a payload of 10 MB
constexpr uint32_t REQUEST = 1u << 30;
constexpr uint32_t CONTROL = 1u << 29;

size_t pieces_in(const record &r)
{
  return static_cast<size_t>(std::distance(r.counts.begin(), r.counts.lower_bound(PIECES)));
}

void enqueue_pieces(test_node &from, uint32_t count)
{
  for (uint32_t piece = 0; piece < count; ++piece) {
    EXPECT_NE(from.enqueue(tagged(piece, 1420), 5, 2, GROUP_ADDRESS, 0, 0), nullptr);
  }
}

}  // namespace

// A lost piece costs a second of silence before it is asked for again.
TEST(messaging_burst, ten_megabytes_reach_three_nodes_without_loss)
{
  record *got[] = {&recorder<1>::reset(), &recorder<2>::reset(), &recorder<3>::reset()};
  test_node one(1);
  test_node two(2);
  test_node three(3);
  recorder<1>::reset([&](uint32_t tag) {
    // All in one go, from within the hook.
    if (tag == REQUEST) {
      enqueue_pieces(one, PIECES);
    }
  });
  one.register_hook(recorder<1>::hook, 5);
  two.register_hook(recorder<2>::hook, 5);
  three.register_hook(recorder<3>::hook, 5);
  two.enqueue(tagged(REQUEST), 5, 1, GROUP_ADDRESS, 0, 0);
  for (record *node : got) {
    EXPECT_TRUE(node->await([](record &r) { return pieces_in(r) == PIECES; }));
  }
  for (test_node *node : {&one, &two, &three}) {
    EXPECT_EQ(node->dropped(drop_reason::receive_overflow), 0u);
  }
}

// Whoever's buffer is small must be able to pause for 10 ms, and what is not bulk must not wait behind it. A second
// request for what is on its way already must not double it.
TEST(messaging_burst, a_small_receive_buffer_slows_bulk_down_and_control_overtakes_it)
{
  constexpr uint32_t BUFFER = 65536;
  constexpr uint32_t COUNT = 1500;
  constexpr int PIECES_IN_BUFFER = 2 * BUFFER / 2304;
  const auto is_whole = [&] {
    record &got = recorder<1>::reset();
    test_node node(1, BUFFER);
    node.register_hook(recorder<1>::hook, 5);
    const auto start = std::chrono::steady_clock::now();
    enqueue_pieces(node, COUNT - 1);
    enqueue_pieces(node, COUNT);  // the last one is new, and comes last
    node.enqueue(tagged(CONTROL), 5, 3, GROUP_ADDRESS, 0, 0);
    got.await([&](record &r) { return pieces_in(r) == COUNT || node.dropped(drop_reason::receive_overflow) != 0; });
    const auto took = std::chrono::steady_clock::now() - start;
    if (node.dropped(drop_reason::receive_overflow) != 0) {
      return false;
    }
    EXPECT_GT(took, std::chrono::milliseconds(10) * (COUNT - PIECES_IN_BUFFER) / PIECES_IN_BUFFER);
    const std::lock_guard held(got.lock);
    EXPECT_EQ(pieces_in(got), COUNT);
    EXPECT_EQ(got.counts[CONTROL], 1u);
    EXPECT_LT(got.tags.back(), PIECES) << "the control message came last";
    return got.tags.size() < COUNT + 100;  // what goes out before anything waits is sent twice
  };
  // A busy machine may keep the receiver from its core for longer than it has room for, or the sender for longer than
  // the pieces take, but not each time.
  EXPECT_TRUE(is_whole() || is_whole() || is_whole() || is_whole());
}

TEST(messaging_burst, taken_back_pieces_are_not_sent)
{
  record &got = recorder<1>::reset();
  test_node node(1);
  node.register_hook(recorder<1>::hook, 5);
  for (uint32_t round = 0; round < 50; ++round) {
    const uint32_t first = round * PIECES;
    for (uint32_t piece = 0; piece < 1000; ++piece) {
      node.enqueue(tagged(first + piece, 1420), 5, 2, GROUP_ADDRESS, 0, 0);
    }
    // In the middle of the sender's work.
    ASSERT_TRUE(got.await_tag(first + 150 + round));
    node.dequeue(nullptr, 5, 2);
    const uint64_t sent = node.statistics().sent;
    node.enqueue(tagged(CONTROL + round), 5, 2, GROUP_ADDRESS, 0, 0);
    ASSERT_TRUE(got.await_tag(CONTROL + round));
    ASSERT_EQ(node.statistics().sent, sent + 1);
  }
}
