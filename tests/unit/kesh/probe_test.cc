#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "client/probe.h"
#include "probe/probe_service.h"

using namespace kesh;

namespace
{

constexpr uint32_t EXTRA = 52;

probe_message ask_of_two(uint32_t size = PROBE_SIZE)
{
  return {probe_kind::ask, 2, 0x01020304, 0x11121314, size};
}

}  // namespace

// Nodes of two versions would not understand each other if these bytes changed.
TEST(probe_message, is_what_its_layout_says)
{
  const std::string asked = probe_encode(ask_of_two(PROBE_SIZE + 2));
  EXPECT_EQ(asked, std::string("VXP\1\1\2\0\0\4\3\2\1\x14\x13\x12\x11\x16\0\0\0\0\0", 22));
  EXPECT_EQ(probe_decode(asked), ask_of_two(PROBE_SIZE + 2));
  probe_message answer = ask_of_two(9000);
  answer.kind = probe_kind::answer;
  EXPECT_EQ(probe_encode(answer), std::string("VXP\1\2\2\0\0\4\3\2\1\x14\x13\x12\x11\x28\x23\0\0", 20));
  EXPECT_EQ(probe_decode(probe_encode(answer)), answer);
  for (size_t size = 0; size < asked.size(); ++size) {
    EXPECT_EQ(probe_decode(asked.substr(0, size)), std::nullopt) << size;
  }
  const struct {
    size_t offset;
    char byte;
  } cases[] = {{0, 'W'}, {3, 2}, {4, 0}, {4, 3}, {5, 0}, {5, 17}, {16, 19}, {19, 1}};
  for (const auto &one : cases) {
    std::string other = asked;
    other[one.offset] = one.byte;
    EXPECT_EQ(probe_decode(other), std::nullopt) << one.offset;
  }
  EXPECT_TRUE(is_probe(asked));
  EXPECT_FALSE(is_probe("{\"node\":1}"));
}

// An answer that came twice, or of a node that was not asked, would hide a loss.
TEST(probe_report, counts_each_answer_once_and_for_its_way)
{
  probe_report run({2, 3});
  const uint32_t first = run.ask(2, true, 72, 1000);
  const uint32_t second = run.ask(2, true, 72, 1000);
  const uint32_t all = run.ask(probe_report::TO_ALL, true, 72, 1000);
  const uint32_t whole = run.ask(3, false, 1500, 1000);
  const uint32_t refused = run.ask(3, false, 9000, 1000);
  run.not_sent(refused);
  run.answered(2, first, 1300);
  run.answered(2, first, 1400);
  run.answered(2, second, 1100);
  run.answered(3, second, 1100);
  run.answered(3, all, 3000);
  run.answered(3, whole, 9000);
  run.answered(4, all, 2000);
  run.answered(2, 77, 2000);
  EXPECT_FALSE(run.is_complete());
  const std::vector<probe_peer> expected = {{2, {2, 2, 100, 300, 400, 72}, {1, 0, 0, 0, 0, 0}},
                                            {3, {0, 0, 0, 0, 0, 1500}, {1, 1, 2000, 2000, 2000, 72}}};
  EXPECT_EQ(run.result(), expected);
  run.answered(2, all, 2000);
  EXPECT_TRUE(run.is_complete());
}

// Node 2 answers, node 3 knows no probes, the network takes packets of at most 1492 bytes, and the group does not work.
TEST(probe_service, finds_out_what_comes_through)
{
  constexpr uint32_t PATH = 1492;
  std::unique_ptr<probe_service> one;
  probe_service two(2, 3, [&](uint32_t to, std::string_view bytes) {
    EXPECT_EQ(to, 1u);
    EXPECT_EQ(bytes.size(), PROBE_SIZE);
    one->receive(2, bytes);
    return true;
  });
  one = std::make_unique<probe_service>(1, 3, [&](uint32_t to, std::string_view bytes) {
    if (to == 2 && bytes.size() + EXTRA <= PATH) {
      two.receive(1, bytes);
    }
    return bytes.size() + EXTRA <= PATH;
  });
  std::vector<probe_peer> found;
  EXPECT_TRUE(one->run(
      {.count = 3, .by_multicast = true, .packet_extra = EXTRA}, [] { return false; }, found));
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].unicast.answered, 3u);
  EXPECT_EQ(found[0].unicast.largest, PATH);
  EXPECT_EQ(found[0].multicast, (probe_way{3, 0, 0, 0, 0, 0}));
  EXPECT_EQ(found[1].unicast, (probe_way{3, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(one->run(
      {.count = 3, .by_multicast = false, .packet_extra = EXTRA}, [] { return true; }, found));
  EXPECT_EQ(found[0].unicast.sent, 0u) << "it was to end at once";
}

// A member that asks without end, or in the name of another one, must not make this node send without end, or to
// others.
TEST(probe_service, answers_who_asks_and_not_without_end)
{
  uint32_t answers = 0;
  probe_service asked(1, 3, [&](uint32_t to, std::string_view) {
    EXPECT_EQ(to, 2u);
    ++answers;
    return true;
  });
  asked.receive(3, probe_encode(ask_of_two()));
  EXPECT_EQ(answers, 0u);
  for (uint32_t i = 0; i < 3 * answer_limit::ANSWERS_MAX; ++i) {
    asked.receive(2, probe_encode(ask_of_two(9000)));
  }
  EXPECT_GE(answers, answer_limit::ANSWERS_MAX);
  EXPECT_LE(answers, 2 * answer_limit::ANSWERS_MAX) << "unless this took more than a second";
  answer_limit limit;
  for (uint32_t i = 0; i < answer_limit::ANSWERS_MAX; ++i) {
    EXPECT_TRUE(limit.allows(16, 5000));
  }
  EXPECT_FALSE(limit.allows(16, 5999));
  EXPECT_TRUE(limit.allows(15, 5999));
  EXPECT_TRUE(limit.allows(16, 6000));
}

TEST(probe_text, says_what_does_not_work)
{
  const nlohmann::json silent = {{"sent", 20}, {"answered", 0}, {"rtt_us", nullptr}, {"mtu", 0}};
  const nlohmann::json well = {
      {"sent", 20}, {"answered", 19}, {"rtt_us", {{"min", 90}, {"avg", 120}, {"max", 1500}}}, {"mtu", 1500}};
  const auto peer = [](uint32_t node, const nlohmann::json &unicast, const nlohmann::json &multicast) {
    return nlohmann::json{{"node", node}, {"address", "10.0.0.9"}, {"unicast", unicast}, {"multicast", multicast}};
  };
  EXPECT_EQ(probe_text({{"peers", {peer(2, well, silent), peer(3, silent, silent), peer(4, well, nullptr)}}}),
            "node 2 (10.0.0.9): unicast 19 of 20 (loss 5%), 0.090/0.120/1.500 ms, MTU 1500; multicast 0 of 20\n"
            "node 3 (10.0.0.9): no answer to probes\n"
            "node 4 (10.0.0.9): unicast 19 of 20 (loss 5%), 0.090/0.120/1.500 ms, MTU 1500\n");
}
