// The register table, the register protocol and the consensus instance on top, with the other nodes' messages by hand.

#include <algorithm>
#include <future>
#include <map>

#include "layer_fixture.h"
#include "round_based_registers/consensus.h"
#include "round_based_registers/register_protocol.h"
#include "round_based_registers/register_table.h"

namespace
{

using wire::bytes;
using wire::operator+;
using wire::words;

const bytes P = {1, 5, 0, 0, 0};
const bytes Q = {2, 6, 0, 0, 0};

cons_value value_of(const bytes &from)
{
  cons_value value;
  EXPECT_TRUE(value.assign(from));
  return value;
}

bytes bytes_of(const cons_value &value)
{
  return {value.bytes().begin(), value.bytes().end()};
}

class registers : public layer_test
{
protected:
  registers()
  {
    EXPECT_EQ(rb_reg_init(nullptr), 0);
    rb_reg_set_floor(0);
  }
  ~registers() override
  {
    rb_reg_cleanup();
    EXPECT_EQ(fake::queued_count(), 0u);
  }

  // Sends a request from a node and returns the payload of the answer, empty if there is none.
  static bytes answer(uint32_t from, const bytes &request)
  {
    const size_t before = fake::sent().size();
    fake::inject(3, from, request);
    EXPECT_TRUE(fake::settle());
    const auto sent = fake::sent();
    EXPECT_LE(sent.size(), before + 1);
    if (sent.size() == before) {
      return {};
    }
    EXPECT_EQ(sent.back().destination, fake::address_of(from));
    EXPECT_EQ(std::tuple(sent.back().channel, sent.back().repeat, sent.back().interval), std::tuple(3u, 0, 0u));
    EXPECT_EQ(sent.back().key, wire::word_at(request, 4));
    return sent.back().payload;
  }

  static std::future<int> propose(consensus *instance, uint32_t round, const bytes &proposal, bytes *decision)
  {
    return std::async(std::launch::async, [=] {
      cons_value decided;
      const int result = consensus_propose(*instance, round, value_of(proposal), decided);
      *decision = bytes_of(decided);
      return result;
    });
  }
  static bool wait_sent(uint32_t type, size_t count = 1)
  {
    return fake::wait_for([=] { return fake::sent(3, type).size() >= count; });
  }
};

TEST_F(registers, votes_on_several_threads)
{
  for (const uint32_t id : {7u, 8u}) {
    fake::call_hook(3, 2, wire::reg(wire::READ_REQ, id, 1));
  }
  const auto vote = [](uint32_t id, const bytes &value) {
    for (uint32_t round = 1; round <= 50; ++round) {
      fake::call_hook(3, 2, wire::write_req(id, round, value));
    }
  };
  auto other = std::async(std::launch::async, [&] { vote(7, P); });
  vote(8, Q + Q);
  other.get();
  EXPECT_EQ(files::read("rb_reg.7"), words({1, 50, 5}) + P);
  EXPECT_EQ(files::read("rb_reg.8"), words({1, 50, 10}) + Q + Q);
}

// The table of what an acceptor answers: each row stands on the ones before it. A wrong row is two decisions for one
// number.
TEST_F(registers, acceptor_keeps_its_promises)
{
  const auto reg = [](wire::reg_type type, uint32_t round) { return wire::reg(type, 7, round); };
  const struct {
    const char *what;
    uint32_t from;
    bytes request, answer, file;
  } steps[] = {
      {"round 0 is never promised", 2, reg(wire::READ_REQ, 0), reg(wire::READ_NACK, 0), {}},
      {"first promise", 2, reg(wire::READ_REQ, 4), wire::read_ack(7, 4, 0, {}), words({4, 0, 0})},
      {"repeated by the same node", 2, reg(wire::READ_REQ, 4), wire::read_ack(7, 4, 0, {}), words({4, 0, 0})},
      {"same round, another node", 3, reg(wire::READ_REQ, 4), reg(wire::READ_NACK, 4), words({4, 0, 0})},
      {"lower round", 3, reg(wire::READ_REQ, 3), reg(wire::READ_NACK, 3), words({4, 0, 0})},
      {"write below the promise", 3, wire::write_req(7, 3, Q), reg(wire::WRITE_NACK, 3), words({4, 0, 0})},
      {"write in the promised round", 2, wire::write_req(7, 4, P), reg(wire::WRITE_ACK, 4), words({4, 4, 5}) + P},
      {"repeated write keeps the value", 2, wire::write_req(7, 4, Q), reg(wire::WRITE_ACK, 4), words({4, 4, 5}) + P},
      {"read in a written round", 2, reg(wire::READ_REQ, 4), reg(wire::READ_NACK, 4), words({4, 4, 5}) + P},
      {"higher read brings the value", 3, reg(wire::READ_REQ, 5), wire::read_ack(7, 5, 4, P), words({5, 4, 5}) + P},
      {"write below that", 2, wire::write_req(7, 4, P), reg(wire::WRITE_NACK, 4), words({5, 4, 5}) + P},
      {"write above every promise", 3, wire::write_req(7, 9, Q), reg(wire::WRITE_ACK, 9), words({5, 9, 5}) + Q},
      {"an empty value", 3, wire::write_req(7, 10, {}), reg(wire::WRITE_ACK, 10), words({5, 10, 0})},
  };
  for (const auto &s : steps) {
    SCOPED_TRACE(s.what);
    EXPECT_EQ(answer(s.from, s.request), s.answer);
    EXPECT_EQ(files::read("rb_reg.7"), s.file);
  }
}

// An answer that the disk does not cover is forgotten by a restart.
TEST_F(registers, acceptor_is_silent_when_its_save_fails)
{
  ASSERT_FALSE(answer(2, wire::reg(wire::READ_REQ, 7, 4)).empty());
  files::block_saves("rb_reg.7");
  EXPECT_TRUE(answer(3, wire::reg(wire::READ_REQ, 7, 5)).empty());
  EXPECT_TRUE(answer(2, wire::write_req(7, 4, P)).empty());
  files::unblock_saves("rb_reg.7");
  EXPECT_EQ(answer(3, wire::reg(wire::READ_REQ, 7, 5)), wire::read_ack(7, 5, 0, {}));
}

TEST_F(registers, acceptor_resumes_from_its_file)
{
  files::write("rb_reg.8", words({3, 3, 5}) + P);
  files::write("rb_reg.9", {1, 2, 3});
  EXPECT_EQ(answer(2, wire::reg(wire::READ_REQ, 8, 3)), wire::reg(wire::READ_NACK, 8, 3));
  EXPECT_EQ(answer(2, wire::reg(wire::READ_REQ, 8, 4)), wire::read_ack(8, 4, 3, P));
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 9, 4)).empty());  // what was promised there is not known
}

// A node that has decided n knows that others may have too: a fresh promise for n would let them decide n again.
TEST_F(registers, never_votes_again_for_what_is_decided)
{
  rb_reg_set_floor(9);
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 9, 100)).empty());
  EXPECT_TRUE(answer(2, wire::write_req(8, 100, Q)).empty());
  EXPECT_EQ(fake::logged("CONS: RB_REG: ignored READ REQ message for an already deleted register (id=9)\n"), 1u);
  EXPECT_EQ(fake::logged("CONS: RB_REG: ignored WRITE REQ message for an already deleted register (id=8)\n"), 1u);
  EXPECT_EQ(consensus_create(9), nullptr);

  ASSERT_FALSE(answer(2, wire::reg(wire::READ_REQ, 12, 1)).empty());
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 11, 1)).empty());                      // passed over
  EXPECT_EQ(answer(2, wire::reg(wire::READ_REQ, 10, 1)), wire::read_ack(10, 1, 0, {}));  // the next one must live
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 11, 1)).empty());                      // still
  rb_reg_delete_up_to(10);
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 10, 2)).empty());
  EXPECT_EQ(answer(2, wire::reg(wire::READ_REQ, 11, 2)), wire::read_ack(11, 2, 0, {}));
  EXPECT_EQ(answer(2, wire::reg(wire::READ_REQ, 12, 2)), wire::read_ack(12, 2, 0, {}));
}

TEST_F(registers, votes_for_nothing_until_the_last_decision_is_known)
{
  ASSERT_EQ(rb_reg_reset(), 0);
  const size_t lines = fake::log_lines().size();
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 1, 1)).empty());
  EXPECT_EQ(fake::log_lines().size(), lines);
  EXPECT_FALSE(files::exists("rb_reg.1"));
  rb_reg_set_floor(0);
  EXPECT_FALSE(answer(2, wire::reg(wire::READ_REQ, 1, 1)).empty());
}

TEST_F(registers, are_retired_with_their_files)
{
  for (const uint32_t id : {6u, 8u, 9u}) {
    ASSERT_FALSE(answer(2, wire::reg(wire::READ_REQ, id, 1)).empty());
  }
  files::write("rb_reg.2", {1});
  files::write("rb_reg.8.tmp", {1});
  rb_reg *held = rb_reg_get(8);
  rb_reg_delete_up_to(8);
  EXPECT_EQ(rb_reg_get(6), nullptr);
  EXPECT_FALSE(files::exists("rb_reg.2") || files::exists("rb_reg.6"));
  EXPECT_TRUE(files::exists("rb_reg.8"));  // somebody still works with it
  EXPECT_TRUE(files::exists("rb_reg.9"));
  rb_reg_put(held);
  EXPECT_FALSE(files::exists("rb_reg.8"));
  ASSERT_EQ(rb_reg_reset(), 0);
  rb_reg_set_floor(0);
  EXPECT_EQ(files::all().size(), 1u);  // a save may be under way
  rb_reg_cleanup();
  ASSERT_EQ(rb_reg_init(nullptr), 0);
  EXPECT_EQ(files::all().size(), 0u);
  rb_reg_set_floor(0);
  EXPECT_EQ(rb_reg_create(0), -1);
  EXPECT_EQ(rb_reg_create(1), 0);
  EXPECT_EQ(rb_reg_create(1), 0);
}

// Every decision deletes: reading a directory of a thousand payloads each time costs more than the rest of it.
TEST_F(registers, files_of_an_earlier_life_go_and_then_the_directory_is_read_no_more)
{
  files::write("rb_reg.7", wire::words({1, 0, 0}));
  files::write("rb_reg.9", wire::words({1, 0, 0}));
  rb_reg_set_floor(6);
  rb_reg_delete_up_to(7);
  EXPECT_FALSE(files::exists("rb_reg.7"));
  EXPECT_TRUE(files::exists("rb_reg.9"));
  rb_reg_delete_up_to(9);
  EXPECT_FALSE(files::exists("rb_reg.9"));
  files::write("rb_reg.10", wire::words({1, 0, 0}));  // by nobody: only a reader of the directory meets it
  rb_reg_delete_up_to(10);
  EXPECT_TRUE(files::exists("rb_reg.10"));
}

TEST_F(registers, decide_the_own_value_on_a_fresh_register)
{
  consensus *instance = consensus_create(5);
  bytes decision;
  auto result = propose(instance, 1, P, &decision);
  ASSERT_TRUE(wait_sent(wire::READ_REQ));
  ASSERT_EQ(fake::queued(3, 5).size(), 1u);
  const auto request = fake::queued(3, 5)[0];
  EXPECT_EQ(request.payload, words({0, 5, 1}));
  EXPECT_EQ(std::tuple(request.destination, request.repeat, request.interval), std::tuple(fake::MULTICAST, -1, 1u));
  fake::inject(3, 2, wire::read_ack(5, 1, 0, {}));
  ASSERT_TRUE(wait_sent(wire::WRITE_REQ));
  fake::inject(3, 2, wire::reg(wire::WRITE_ACK, 5, 1));
  EXPECT_EQ(result.get(), RB_REG_COMMITTED);
  EXPECT_EQ(decision, P);
  EXPECT_EQ(fake::queued_count(), 0u);
  EXPECT_EQ(files::read("rb_reg.5"), words({1, 1, 5}) + P);
  EXPECT_TRUE(fake::in_order(
      {"CONS: CONSENSOUS: propose ... (batch_id=5, round=1)\n", "CONS: RB-REG: READ_REQ broadcast (id=5, round=1)\n",
       "CONS: RB-REG: READ committed (id=5, round=1)\n", "CONS: RB-REG: WRITE committed (id=5, round=1)\n",
       "CONS: CONSENSOUS: proposal commited (batch_id=5, round=1)\n"}));
  consensus_free(instance);
}

// Taking the own value instead, or the value of a lower round, or that of the first answer, replaces what was decided.
TEST_F(registers, decide_the_value_of_the_highest_write_round_read)
{
  be_node(1, 5);
  fake::set_loopback(false);
  const std::map<uint32_t, std::pair<uint32_t, bytes>> read = {{2, {0, P}}, {3, {3, Q}}, {4, {2, P}}};
  std::vector<uint32_t> order = {2, 3, 4};
  uint32_t id = 5;
  const auto asks = [&id](uint8_t type) {
    const auto queued = fake::queued(3, id);
    return queued.size() == 1 && queued[0].payload[0] == type;
  };
  do {
    consensus *instance = consensus_create(id);
    bytes decision;
    auto result = propose(instance, 6, P, &decision);
    ASSERT_TRUE(fake::wait_for([&] { return asks(wire::READ_REQ); }));
    for (const uint32_t node : order) {
      ASSERT_TRUE(fake::settle());
      EXPECT_TRUE(asks(wire::READ_REQ));
      const auto &[write_round, value] = read.at(node);
      fake::inject(3, node, wire::read_ack(id, 6, write_round, value));
      if (node != order.back()) {
        fake::inject(3, node, wire::read_ack(id, 6, 5, P));  // the same node twice counts once
        fake::inject(3, 5, wire::read_ack(id, 1, 5, P));     // another round
        fake::inject(3, 0, wire::read_ack(id, 6, 5, P));     // nobody
        fake::inject(3, 17, wire::read_ack(id, 6, 5, P));
      }
    }
    ASSERT_TRUE(fake::wait_for([&] { return asks(wire::WRITE_REQ); }));
    EXPECT_EQ(fake::queued(3, id)[0].payload, wire::write_req(id, 6, Q));
    // The own acceptor has not heard of the round by the wire, but its promise must be on disk before a value goes out.
    EXPECT_EQ(files::read("rb_reg." + std::to_string(id)), words({6, 0, 0}));
    for (const uint32_t node : order) {
      fake::inject(3, node, wire::reg(wire::WRITE_ACK, id, 6));
    }
    EXPECT_EQ(result.get(), RB_REG_COMMITTED);
    EXPECT_EQ(decision, Q);
    consensus_free(instance);
    ++id;
  } while (std::next_permutation(order.begin(), order.end()));
}

// After a crash the node begins in a round it has not used: it must not find the round of an earlier value unused.
TEST_F(registers, send_no_value_that_the_own_promise_does_not_cover)
{
  fake::set_loopback(false);
  consensus *instance = consensus_create(5);
  EXPECT_EQ(consensus_first_round(*instance), 1u);
  files::block_saves("rb_reg.5");
  bytes decision;
  auto result = propose(instance, 1, P, &decision);
  ASSERT_TRUE(wait_sent(wire::READ_REQ));
  fake::inject(3, 2, wire::read_ack(5, 1, 0, {}));
  fake::inject(3, 3, wire::read_ack(5, 1, 0, {}));
  EXPECT_EQ(result.get(), RB_REG_ERROR);
  EXPECT_TRUE(fake::sent(3, wire::WRITE_REQ).empty());
  EXPECT_EQ(decision, P);
  consensus_free(instance);
}

// Two values in one round are two decisions: every proposal starts above what the own acceptor has seen.
TEST_F(registers, begin_in_an_unused_round_of_the_node)
{
  be_node(2, 3);
  const struct {
    uint32_t read_round, write_round, expected;
  } cases[] = {{0, 0, 2}, {1, 0, 2}, {2, 0, 5}, {3, 4, 5}, {5, 5, 8}, {0xfffffff8, 0, 0xfffffffb}, {0xffffffff, 0, 0}};
  uint32_t id = 1;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.read_round);
    files::write("rb_reg." + std::to_string(id), words({c.read_round, c.write_round, 0}));
    consensus *instance = consensus_create(id++);
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(consensus_first_round(*instance), c.expected);
    consensus_free(instance);
  }
}

TEST_F(registers, end_by_a_refusal_a_cancel_or_their_retirement)
{
  consensus *instance = consensus_create(5);
  bytes decision;
  auto refused = propose(instance, 1, P, &decision);
  ASSERT_TRUE(wait_sent(wire::READ_REQ));
  fake::inject(3, 3, wire::reg(wire::READ_NACK, 5, 1));
  EXPECT_EQ(refused.get(), RB_REG_ABORTED);
  EXPECT_EQ(fake::logged("CONS: CONSENSOUS: proposal aborted (batch_id=5, round=1)\n"), 1u);

  auto cancelled = propose(instance, 4, P, &decision);
  ASSERT_TRUE(wait_sent(wire::READ_REQ, 2));
  consensus_cancel(instance);
  EXPECT_EQ(cancelled.get(), RB_REG_CANCELLED);
  EXPECT_EQ(decision, P);

  consensus_cancel(instance);  // before the next one: it ends at once and sends nothing
  EXPECT_EQ(propose(instance, 7, P, &decision).get(), RB_REG_CANCELLED);
  EXPECT_EQ(fake::sent(3, wire::READ_REQ).size(), 2u);

  auto retired = propose(instance, 10, P, &decision);
  ASSERT_TRUE(wait_sent(wire::READ_REQ, 3));
  rb_reg_delete_up_to(5);
  EXPECT_EQ(retired.get(), RB_REG_CANCELLED);
  EXPECT_EQ(propose(instance, 13, P, &decision).get(), RB_REG_ERROR);
  consensus_free(instance);
  ASSERT_TRUE(fake::settle());  // the hook may have been the last who held it
  EXPECT_FALSE(files::exists("rb_reg.5"));

  consensus *next = consensus_create(6);
  consensus_cancel(next);
  consensus_free(next);
  next = consensus_create(6);  // a cancel left over from an earlier proposal is not for this one
  fake::fail(fake::call::allocate, 1);
  EXPECT_EQ(propose(next, 1, P, &decision).get(), RB_REG_ERROR);
  consensus_free(next);
}

// A believed length reads foreign memory, a believed sender writes beside the table of nodes.
TEST_F(registers, drop_hostile_messages_whole)
{
  ASSERT_FALSE(answer(2, wire::reg(wire::READ_REQ, 7, 4)).empty());
  const auto before = files::all();
  const size_t lines = fake::log_lines().size();
  const bytes longest[] = {wire::reg(wire::READ_REQ, 7, 9),  wire::read_ack(7, 9, 1, P),
                           wire::reg(wire::READ_NACK, 7, 9), wire::write_req(7, 9, P),
                           wire::reg(wire::WRITE_ACK, 7, 9), wire::reg(wire::WRITE_NACK, 7, 9)};
  for (const bytes &whole : longest) {
    for (size_t n = 0; n < whole.size(); ++n) {
      EXPECT_TRUE(answer(2, {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)}).empty());
    }
    for (const uint32_t sender : {0u, 4u, 17u, 255u}) {
      fake::inject(3, sender, whole);
    }
  }
  fake::inject(3, 2, words({wire::WRITE_REQ, 7, 9, 0xfffffff0}) + P);
  fake::inject(3, 2, words({wire::READ_ACK, 7, 9, 1, 0xffffffff}) + P);
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(files::all(), before);
  EXPECT_EQ(fake::log_lines().size(), lines);

  EXPECT_TRUE(answer(2, wire::reg(static_cast<wire::reg_type>(9), 7, 9)).empty());
  EXPECT_EQ(fake::logged("CONS: RB-REG: unknown message type 9\n"), 1u);
  EXPECT_TRUE(answer(2, wire::reg(wire::WRITE_ACK, 70, 9)).empty());
  EXPECT_EQ(fake::logged("CONS: RB_REG: ignored ACK/NACK message for non-existing register (id=70)\n"), 1u);
  EXPECT_EQ(files::all(), before);
}

TEST_F(registers, survive_a_table_without_memory)
{
  fake::fail(fake::call::hash_insert, 1);
  EXPECT_TRUE(answer(2, wire::reg(wire::READ_REQ, 7, 4)).empty());
  EXPECT_FALSE(answer(2, wire::reg(wire::READ_REQ, 7, 4)).empty());
  rb_reg_cleanup();
  EXPECT_EQ(rb_reg_create(8), -1);
  EXPECT_EQ(rb_reg_get(7), nullptr);
  rb_reg_delete_up_to(3);
  EXPECT_EQ(rb_reg_reset(), -1);
  fake::fail(fake::call::hash_create, 1);
  EXPECT_EQ(rb_reg_init(nullptr), -1);
  EXPECT_TRUE(fake::hook_channels().empty());
  EXPECT_EQ(rb_reg_init(nullptr), 0);
  EXPECT_EQ(fake::tables_created(), (std::vector<uint32_t>{250, 250}));
}

}  // namespace
