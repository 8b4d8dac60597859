// The simulator's own parts: a disk that loses what it may, an oracle that sees what it should.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "oracle.h"
#include "sim_disk.h"

namespace
{

using sim::draw;
using sim::sim_disk;

const std::string PATH = "/flashdisk/cons/record";

void replace(sim_disk &disk, const std::string &text, bool is_flushed)
{
  const sim_disk::file_ptr file = disk.create(PATH + ".tmp");
  sim_disk::write(*file, 0, reinterpret_cast<const uint8_t *>(text.data()), text.size());
  if (is_flushed) {
    sim_disk::datasync(*file);
  }
  disk.rename(PATH + ".tmp", PATH);
}

// What the record can be after a power cut.
std::set<std::string> outcomes(bool is_flushed, bool is_synced)
{
  std::set<std::string> seen;
  for (uint64_t seed = 0; seed < 200; ++seed) {
    sim_disk disk;
    disk.put(PATH, "old");
    replace(disk, "new", is_flushed);
    if (is_synced) {
      disk.sync();
    }
    draw choices(seed, 1);
    disk.cut_power(choices);
    seen.insert(disk.get(PATH).value_or("none"));
  }
  return seen;
}

TEST(sim_disk, a_power_cut_keeps_what_was_synced_and_may_lose_the_rest)
{
  EXPECT_EQ(outcomes(true, true), (std::set<std::string>{"new"}));
  EXPECT_EQ(outcomes(true, false), (std::set<std::string>{"new", "old"}));
  // The rename reaches the disk before the bytes.
  EXPECT_EQ(outcomes(false, false), (std::set<std::string>{"new", "old", "", "n", "ne"}));
  EXPECT_EQ(outcomes(false, true), (std::set<std::string>{"new"}));

  sim_disk disk;
  replace(disk, "new", true);
  EXPECT_FALSE(disk.is_durable(PATH));
  disk.sync();
  EXPECT_TRUE(disk.is_durable(PATH));
  disk.truncate(PATH);
  EXPECT_FALSE(disk.is_durable(PATH));
}

struct judged {
  std::vector<std::string> broken;
  sim::oracle judge{
      2, true, [this](const std::string &invariant, uint32_t, const std::string &) { broken.push_back(invariant); }};
  sim::sim_node first;
  sim::sim_node second;

  judged()
  {
    first.number = 1;
    second.number = 2;
    first.run = std::make_unique<sim::node_run>();
    second.run = std::make_unique<sim::node_run>();
  }
  const sim::submission &call(uint32_t node) { return judge.call(node, 20); }
  void deliver(sim::sim_node &to, const sim::submission &one, bool may_repeat = false)
  {
    const std::vector<uint8_t> bytes = sim::submission_bytes(one);
    judge.delivered(to, bytes.data(), one.length, may_repeat);
  }
  void send(const sim::sim_node &from, uint8_t type, uint8_t reg, uint8_t round, const std::vector<uint8_t> &rest = {})
  {
    std::vector<uint8_t> bytes(sim::ENVELOPE_BYTES);
    for (const uint8_t field : {type, reg, round}) {
      bytes.insert(bytes.end(), {field, 0, 0, 0});
    }
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    judge.sent(from, 3, std::make_shared<const std::vector<uint8_t>>(bytes));
  }
  void save(const sim::sim_node &of, const std::string &name, const sim::file_bytes &bytes)
  {
    judge.record_saved(of, "/flashdisk/cons/" + name, bytes);
  }
};

using names = std::vector<std::string>;

TEST(oracle, sees_histories_that_differ)
{
  judged all;
  const sim::submission &one = all.call(1);
  const sim::submission &two = all.call(2);
  all.deliver(all.first, one);
  all.deliver(all.second, one);
  all.deliver(all.second, one, true);  // the last one, once more
  all.deliver(all.first, two);
  EXPECT_EQ(all.broken, names{});
  all.judge.returned(two, 0, all.second.app);
  EXPECT_EQ(all.broken, names{"acknowledged"});  // node 2 has not delivered it
  all.deliver(all.second, all.call(1));
  EXPECT_EQ(all.broken.back(), "agreement");
  all.broken.clear();
  all.deliver(all.first, one);
  EXPECT_EQ(all.broken, names{"integrity"});
  all.judge.state_adopted(all.second, {2, 1});
  EXPECT_EQ(all.broken.back(), "agreement");
  const std::vector<uint8_t> foreign(20, 0xff);
  all.judge.delivered(all.first, foreign.data(), 20, false);
  EXPECT_EQ(all.broken.back(), "integrity");
}

TEST(oracle, sees_an_order_against_time)
{
  judged all;
  const sim::submission &early = all.call(1);
  const sim::submission &beside = all.call(2);
  all.deliver(all.first, early);
  all.judge.returned(early, 0, all.first.app);
  const sim::submission &late = all.call(1);
  all.deliver(all.first, beside);
  all.deliver(all.first, late);
  EXPECT_EQ(all.broken, names{});

  judged other;
  const sim::submission &never = other.call(1);
  other.judge.returned(never, 0, other.first.app);
  EXPECT_EQ(other.broken, names{"acknowledged"});
}

constexpr uint8_t READ_ACK = 1;
constexpr uint8_t WRITE_REQ = 3;
constexpr uint8_t WRITE_ACK = 4;
const std::vector<uint8_t> NOTHING(8);  // of a READ_ACK: no round in which it wrote, no length

std::vector<uint8_t> writes(char value)
{
  return {1, 0, 0, 0, static_cast<uint8_t>(value)};
}

TEST(oracle, sees_files_that_go_back_and_decisions_that_differ)
{
  judged all;
  sim::file_bytes decision(1258);
  decision[0] = 7;
  decision[4] = 1;
  decision[8] = 1;
  decision[9] = 5;
  all.save(all.first, "paxos_decide", decision);
  EXPECT_EQ(all.broken, names{"decision"});  // no quorum has accepted it
  all.broken.clear();
  all.save(all.second, "paxos_decide", decision);
  all.save(all.first, "msg_id", {9, 0, 0, 0});
  all.save(all.first, "rb_reg.8", {3, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(all.broken, names{});
  decision[9] = 6;
  all.save(all.first, "paxos_decide", decision);
  decision[0] = 6;
  all.save(all.second, "paxos_decide", decision);
  all.save(all.first, "msg_id", {8, 0, 0, 0});
  all.save(all.first, "rb_reg.8", {3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(all.broken, (names{"decision", "numbers", "decision", "numbers", "promise"}));
}

TEST(oracle, sees_votes_that_were_not_saved)
{
  judged all;
  for (sim::sim_node *one : {&all.first, &all.second}) {
    one->disk.put("/flashdisk/cons/rb_reg.8", "saved");
    all.save(*one, "rb_reg.8", {2, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0});
  }
  for (uint8_t round = 1; round <= 2; ++round) {
    all.send(all.first, READ_ACK, 8, round, NOTHING);
    all.send(all.second, READ_ACK, 8, round, NOTHING);
  }
  all.send(all.first, WRITE_REQ, 8, 2, writes('a'));
  all.send(all.second, WRITE_ACK, 8, 2);
  EXPECT_EQ(all.broken, names{});
  all.send(all.second, WRITE_ACK, 8, 3);
  all.send(all.second, READ_ACK, 8, 3, NOTHING);
  EXPECT_EQ(all.broken, (names{"promise", "promise"}));
  all.first.run->was_stopped = true;
  all.judge.sent(all.first, 4, std::make_shared<const std::vector<uint8_t>>(sim::ENVELOPE_BYTES + 12));
  EXPECT_EQ(all.broken.back(), "silence");
}

TEST(register_votes, sees_rounds_that_break_the_rules)
{
  sim::register_votes votes(3);
  const auto promise = [&](uint32_t round) { return votes.promised(8, round, 1) + votes.promised(8, round, 2); };
  promise(1);
  promise(2);
  EXPECT_EQ(votes.written(8, 1, "a"), "");
  EXPECT_EQ(votes.written(8, 2, "b"), "");  // nobody has accepted the first one
  EXPECT_NE(votes.written(8, 2, "a"), "");
  EXPECT_NE(votes.written(8, 3, "b"), "");  // not promised
  EXPECT_EQ(votes.accepted(8, 2, 2), "");
  EXPECT_FALSE(votes.is_chosen(8, "b"));
  EXPECT_EQ(votes.accepted(8, 2, 3), "");
  EXPECT_TRUE(votes.is_chosen(8, "b"));
  promise(4);
  EXPECT_EQ(votes.written(8, 4, "b"), "");
  promise(5);
  EXPECT_NE(votes.written(8, 5, "c"), "");
  EXPECT_NE(votes.accepted(8, 1, 1) + votes.accepted(8, 1, 2), "");  // a and b are both chosen
}

}  // namespace
