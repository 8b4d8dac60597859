// The payload layer alone: what it sends and answers on channel 5, and what it delivers in which order.

#include <future>
#include <mutex>

#include "layer_fixture.h"
#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/loss_watch.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_table.h"

namespace
{

using wire::bytes;
using wire::operator+;
using wire::entry;

constexpr entry A = {2, 10};
constexpr entry B = {2, 11};
constexpr entry C = {3, 12};
constexpr entry S1 = {2, 9};
constexpr entry S2 = {3, 20};

std::mutex delivered_lock;
wire::log delivered;
wire::log lost;
std::atomic<bool> is_delivery_held;
std::atomic<int> deliveries_begun;
std::atomic<uint32_t> uninformed;  // nodes that the layer above was asked to tell our decision

void on_deliver(uint32_t id, uint8_t sender, const payload_buf *)
{
  ++deliveries_begun;
  fake::wait_for([] { return !is_delivery_held; });
  const std::lock_guard lock(delivered_lock);
  delivered.emplace_back(sender, id);
}

void on_lost(uint32_t id, uint8_t sender)
{
  const std::lock_guard lock(delivered_lock);
  lost.emplace_back(sender, id);
}

bool wait_delivered(const wire::log &expected)
{
  return fake::wait_for([&] {
    const std::lock_guard lock(delivered_lock);
    return delivered == expected;
  });
}

bytes payload_of(size_t size, uint8_t fill = 3)
{
  return wire::payload(0, {{0, bytes(size - 16, fill)}});
}

bytes piece_of(const bytes &payload, uint32_t offset)
{
  const auto end = std::min<size_t>(payload.size(), offset + wire::PIECE);
  bytes secret(end - offset);
  cons_crypt(secret.data(), payload.data() + offset, static_cast<uint32_t>(secret.size()), 1);
  return secret;
}

void inject_piece(uint32_t from, entry e, const bytes &payload, uint32_t offset)
{
  fake::inject(5, from, wire::data(from, e, offset, static_cast<uint32_t>(payload.size()), piece_of(payload, offset)));
}

void inject_all(uint32_t from, entry e, const bytes &payload)
{
  for (uint32_t offset = 0; offset < payload.size(); offset += wire::PIECE) {
    inject_piece(from, e, payload, offset);
  }
}

class dissemination : public layer_test
{
protected:
  dissemination()
  {
    delivered.clear();
    lost.clear();
    is_delivery_held = false;
    deliveries_begun = 0;
    uninformed = 0;
    EXPECT_EQ(paxos_data_init(
                  {.deliver = on_deliver, .lost = on_lost, .uninformed = [](uint32_t nodes) { uninformed |= nodes; }}),
              0);
    EXPECT_EQ(paxos_data_start(), 0);
  }
  ~dissemination() override
  {
    is_delivery_held = false;
    paxos_data_stop();
    paxos_data_cleanup();
    EXPECT_EQ(fake::live_threads(), 0);
    EXPECT_EQ(fake::queued_count(), 0u);
    EXPECT_TRUE(fake::hook_channels().empty());
  }

  static void store(entry e, const bytes &payload)
  {
    auto *copy = static_cast<uint8_t *>(std::malloc(payload.size()));
    std::copy(payload.begin(), payload.end(), copy);
    paxos_data_hash_entry(payload_entry_new(copy), e.second, e.first);
  }
  static void pull(uint32_t number, const wire::log &entries, entry last_delivered = {0, 0})
  {
    id_batch batch;
    for (const auto &[sender, id] : entries) {
      id_batch_add(&batch, id, sender);
    }
    paxos_data_pull(batch, {.sender = last_delivered.first, .msg_id = last_delivered.second}, number);
  }
  // Both others answer each request that they lack it, and say, or do not, that they know no newer decision.
  static void answer_missing(entry e, bool has_word)
  {
    fake::set_receiver([=](const fake::sent_message &message) {
      if (message.channel == 5 && message.payload == wire::req(1, e, 0, wire::ALL)) {
        for (const uint32_t from : {2u, 3u}) {
          fake::call_hook(5, from, wire::data_header(wire::MISSING, from, e));
          if (has_word) {
            paxos_data_losses->is_not_ahead(from);
          }
        }
      }
    });
  }
  static bool has(entry e) { return paxos_data_has_entry(e.second, e.first) != 0; }
  static bytes stored(entry e)
  {
    payload_entry *at = paxos_data_get_entry(e.second, e.first);
    const bytes copy = at != nullptr ? bytes(at->payload, at->payload + payload_size(at->payload)) : bytes();
    payload_entry_release(at);
    return copy;
  }
  static bool wait_sent(wire::data_type type, size_t count)
  {
    return fake::wait_for([=] { return fake::sent(5, type).size() >= count; });
  }
  static std::vector<bytes> payloads_sent(wire::data_type type)
  {
    std::vector<bytes> out;
    for (const auto &message : fake::sent(5, type)) {
      EXPECT_EQ(std::tuple(message.key, message.destination, message.repeat), std::tuple(type, fake::MULTICAST, 0));
      out.push_back(message.payload);
    }
    return out;
  }
};

// The holder cuts the range; what it sends beyond, or leaves out, the asker waits for in vain.
TEST_F(dissemination, answers_a_request_with_the_pieces_of_its_range)
{
  const bytes payload = payload_of(4000);
  store(A, payload);
  const struct {
    uint32_t offset, length;
    std::vector<uint32_t> pieces;
  } cases[] = {{0, wire::ALL, {0, 1400, 2800}},
               {2800, 2800, {2800}},
               {0, 1400, {0}},
               {4000, 1, {}},
               {0xffffffff, 0xffffffff, {}},
               {1400, 0, {}},
               {2800, 0xffffffff, {2800}}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.offset);
    const size_t before = fake::sent(5, wire::DATA).size();
    fake::inject(5, 3, wire::req(3, A, c.offset, c.length));
    ASSERT_TRUE(fake::settle());
    auto sent = payloads_sent(wire::DATA);
    sent.erase(sent.begin(), sent.begin() + static_cast<ptrdiff_t>(before));
    std::vector<bytes> expected;
    for (const uint32_t offset : c.pieces) {
      expected.push_back(wire::data(1, A, offset, 4000, piece_of(payload, offset)));
    }
    EXPECT_EQ(sent, expected);
  }
  fake::inject(5, 3, wire::req(3, B, 0, wire::ALL));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(payloads_sent(wire::MISSING), std::vector<bytes>{wire::data_header(wire::MISSING, 1, B)});
}

TEST_F(dissemination, fetches_what_is_offered)
{
  const bytes payload = payload_of(4201);
  fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  EXPECT_EQ(payloads_sent(wire::REQ), std::vector<bytes>{wire::req(1, A, 0, wire::ALL)});
  fake::inject(5, 3, wire::data_header(wire::OFFER, 3, C));  // one at a time
  for (const uint32_t offset : {4200u, 0u, 1400u, 1400u}) {
    inject_piece(2, A, payload, offset);
  }
  inject_piece(2, B, payload, 2800);  // of another payload
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::logged("DATA (s=2 id=10/2, o=1400, l=1400)\n"), 2u);
  EXPECT_EQ(fake::logged("id=11/2, o="), 0u);
  EXPECT_FALSE(has(A));
  inject_piece(3, A, payload, 2800);  // any holder will do
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(stored(A), payload);
  fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(payloads_sent(wire::COMPLETE), std::vector<bytes>(2, wire::data_header(wire::COMPLETE, 1, A)));
  EXPECT_EQ(fake::sent(5, wire::REQ).size(), 1u);
}

// One encrypts for others while the other decrypts.
TEST_F(dissemination, serves_and_fetches_on_several_threads)
{
  const bytes held = payload_of(4000);
  const bytes fetched = payload_of(1400 * 20);
  store(B, held);
  fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  auto serving = std::async(std::launch::async, [] {
    for (int i = 0; i < 20; ++i) {
      fake::call_hook(5, 3, wire::req(3, B, 0, wire::ALL));
    }
  });
  for (uint32_t offset = 0; offset < fetched.size(); offset += wire::PIECE) {
    const auto total = static_cast<uint32_t>(fetched.size());
    fake::call_hook(5, 2, wire::data(2, A, offset, total, piece_of(fetched, offset)));
  }
  serving.get();
  EXPECT_EQ(stored(A), fetched);
  const auto sent = payloads_sent(wire::DATA);
  ASSERT_EQ(sent.size(), 60u);
  for (size_t i = 0; i < sent.size(); ++i) {
    const uint32_t offset = static_cast<uint32_t>(i % 3) * wire::PIECE;
    EXPECT_EQ(sent[i], wire::data(1, B, offset, 4000, piece_of(held, offset)));
  }
}

// A payload known to fewer nodes than a quorum can be decided and then lost with one node.
TEST_F(dissemination, offers_until_a_quorum_holds_the_payload)
{
  be_node(1, 5);
  const std::atomic<bool> ended{false};
  auto first = std::async(std::launch::async, [&] { paxos_data_offer(7, ended); });
  ASSERT_TRUE(wait_sent(wire::OFFER, 1));
  auto second = std::async(std::launch::async, [&] { paxos_data_offer(8, ended); });
  const auto offer = fake::queued(5, wire::OFFER).at(0);
  EXPECT_EQ(offer.payload, wire::data_header(wire::OFFER, 1, {1, 7}));
  EXPECT_EQ(std::tuple(offer.repeat, offer.interval), std::tuple(-1, 1u));
  for (const uint32_t from : {2u, 2u, 0u}) {  // one node, and nobody
    fake::inject(5, from, wire::data_header(wire::COMPLETE, from, {1, 7}));
  }
  fake::inject(5, 3, wire::data_header(wire::COMPLETE, 3, {1, 8}));  // not what is offered
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::queued(5, wire::OFFER).size(), 1u);
  fake::inject(5, 4, wire::data_header(wire::COMPLETE, 4, {1, 7}));
  first.get();
  ASSERT_TRUE(wait_sent(wire::OFFER, 2));
  EXPECT_EQ(fake::queued(5, wire::OFFER).at(0).payload, wire::data_header(wire::OFFER, 1, {1, 8}));
  paxos_data_stop();
  second.get();
}

TEST_F(dissemination, delivers_in_order_what_it_holds_or_fetches)
{
  store(S1, payload_of(20));
  store(B, payload_of(20));
  pull(3, {S1, A, B, C});
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  EXPECT_TRUE(wait_delivered({S1}));
  store(C, payload_of(20));
  inject_all(2, A, payload_of(3000));
  EXPECT_TRUE(wait_delivered({S1, A, B, C}));
  EXPECT_EQ(fake::sent(5, wire::REQ).size(), 1u);
  EXPECT_TRUE(fake::wait_for([] { return paxos_data_handled() == 3; }));
}

// The next payload is often offered while the last is being queued here: its transfer goes on.
TEST_F(dissemination, queues_without_losing_the_transfer_of_an_offer)
{
  store(A, payload_of(20));
  const bytes large = payload_of(2800);
  fake::inject(5, 3, wire::data_header(wire::OFFER, 3, C));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  inject_piece(3, C, large, 0);
  ASSERT_TRUE(fake::settle());
  pull(1, {A});
  ASSERT_TRUE(wait_delivered({A}));
  pull(2, {A, B});  // the transfer is not taken away for what the log needs either, as long as its DATA flows
  inject_piece(3, C, large, 1400);
  ASSERT_TRUE(wait_sent(wire::COMPLETE, 1));
  EXPECT_TRUE(has(C));
  EXPECT_TRUE(fake::wait_for([] { return fake::logged("REQ bcast (id=11/2") == 1; }));
}

// Our own requests, drawn by the OFFERs of somebody who went away in the middle, are no sign of life.
TEST_F(dissemination, gives_the_transfer_of_a_dead_offer_up)
{
  fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  ASSERT_TRUE(fake::wait_for([] {
    fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
    fake::inject(5, 3, wire::data_header(wire::OFFER, 3, C));
    return fake::logged("REQ bcast (id=12/3") > 0;
  }));
}

// Decisions often come before the payloads that they name: one payload a second would be all a node delivers then.
TEST_F(dissemination, goes_on_as_soon_as_a_payload_is_complete)
{
  const auto begin = std::chrono::steady_clock::now();
  const wire::log log = {S1, A, B, C};
  pull(1, log);
  for (const entry &e : log) {
    ASSERT_TRUE(fake::wait_for([&] { return fake::logged("REQ bcast (id=" + std::to_string(e.second) + "/") > 0; }));
    inject_all(2, e, payload_of(20));
  }
  EXPECT_TRUE(wait_delivered(log));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2500));
}

// After a loss on the wire only what is missing is asked for again, once the holders are silent.
TEST_F(dissemination, asks_again_for_the_missing_runs)
{
  const bytes payload = payload_of(1400 * 6);
  pull(1, {A});
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  for (const uint32_t piece : {1u, 2u, 4u}) {
    inject_piece(2, A, payload, piece * wire::PIECE);
  }
  fake::set_clock_back(3600);
  ASSERT_TRUE(wait_sent(wire::REQ, 4));
  const std::vector<bytes> expected = {wire::req(1, A, 0, wire::ALL), wire::req(1, A, 0, 1400),
                                       wire::req(1, A, 4200, 1400), wire::req(1, A, 7000, 1400)};
  EXPECT_EQ(payloads_sent(wire::REQ), expected);
  inject_all(3, A, payload);
  EXPECT_TRUE(wait_delivered({A}));
}

// An entry queued twice is delivered twice; one that is passed over is never delivered.
TEST_F(dissemination, goes_on_behind_what_it_has_queued)
{
  for (const entry &e : {S1, A, B, C, S2}) {
    store(e, payload_of(20));
  }
  pull(4, {S1});
  ASSERT_TRUE(wait_delivered({S1}));
  is_delivery_held = true;
  pull(5, {S1, A});
  ASSERT_TRUE(fake::wait_for([] { return deliveries_begun == 2; }));
  // Both while A is being delivered: what they know of the last delivery is older than the queue.
  auto late = std::async(std::launch::async, [] { pull(6, {S1, A, B}, S1); });
  auto older = std::async(std::launch::async, [] { pull(4, {S1}, S1); });
  is_delivery_held = false;
  late.get();
  older.get();
  ASSERT_TRUE(wait_delivered({S1, A, B}));

  pull(7, {S1, A, B, C}, B);
  ASSERT_TRUE(wait_delivered({S1, A, B, C}));
  pull(8, {S2, C}, B);  // a new log that carries the tail of the old one
  store({3, 21}, payload_of(20));
  pull(9, {S2, C, {3, 21}}, C);
  ASSERT_TRUE(wait_delivered({S1, A, B, C, {3, 21}}));
  EXPECT_FALSE(has(A));  // the old log's payloads are released,
  EXPECT_TRUE(has(C));   // but not those that the new log names
  pull(10, {S1, A}, {3, 21});
  ASSERT_TRUE(fake::wait_for([] { return fake::logged("REQ bcast (id=9/2") > 0; }));  // another log: from its state
  store(B, payload_of(20));
  pull(11, {S1, A, B}, {3, 21});
  pull(12, {{3, 22}}, {3, 21});
  EXPECT_FALSE(has(B));  // what was never queued is released too
}

TEST_F(dissemination, resumes_behind_the_last_delivery_after_a_restart)
{
  for (const entry &e : {S1, A, B}) {
    store(e, payload_of(20));
  }
  pull(3, {S1, A, B}, S1);
  ASSERT_TRUE(wait_delivered({A, B}));
  paxos_data_stop();
  ASSERT_EQ(paxos_data_start(), 0);
  EXPECT_EQ(paxos_data_start(), 0);
  EXPECT_EQ(fake::live_threads(), 2);
  store(C, payload_of(20));
  pull(4, {S1, A, B, C}, B);
  EXPECT_TRUE(wait_delivered({A, B, C}));
}

// Two askers answer each other MISSING while the one holder is about to send: no payload may count as lost yet.
TEST_F(dissemination, waits_for_a_slow_holder_before_it_gives_a_payload_up)
{
  const bytes payload = payload_of(3000);
  pull(1, {A});
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  fake::inject(5, 3, wire::data_header(wire::MISSING, 3, A));
  ASSERT_TRUE(fake::settle());
  inject_all(2, A, payload);
  EXPECT_TRUE(wait_delivered({A}));
  EXPECT_EQ(fake::logged("data lost"), 0u);
}

TEST_F(dissemination, skips_what_every_other_node_lacks)
{
  store(B, payload_of(20));
  answer_missing(A, true);
  pull(1, {A, B});
  ASSERT_TRUE(wait_delivered({B}));
  EXPECT_EQ(fake::logged("REQ bcast (id=10/2"), 1u);
  EXPECT_EQ(fake::logged("CONS: PAXOS DATA: data lost - skipped (id=10/2)\n"), 1u);
  EXPECT_TRUE(fake::wait_for([] { return paxos_data_handled() == 1; }));
  EXPECT_EQ(lost, (wire::log{A}));
}

// A node that lacks a payload may have gone on to the next log, and the decision that says so may have been lost on its
// way; or it knows no decision at all and has to be told ours before it can say so. A node with a slow disk works
// through old decisions: the newer ones that wait behind them are the cure.
TEST_F(dissemination, skips_nothing_before_it_knows_that_its_log_is_the_last)
{
  answer_missing(A, false);
  pull(1, {A});
  EXPECT_TRUE(fake::wait_for([] { return uninformed == 0b110; }));
  ASSERT_TRUE(wait_sent(wire::REQ, 2));
  paxos_data_losses->message_begins();
  answer_missing(A, true);
  ASSERT_TRUE(wait_sent(wire::REQ, 4));
  EXPECT_EQ(fake::logged("data lost"), 0u);
  paxos_data_losses->message_ends();
  EXPECT_TRUE(fake::wait_logged("data lost"));
}

// The pull-thread may have to wait long for an answer; the others must be able to order meanwhile.
TEST_F(dissemination, serves_offers_between_two_requests)
{
  pull(1, {A});
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  // The offer may lose its turn again before the data comes, so both are repeated, as a submitter repeats them.
  size_t served = 0;
  ASSERT_TRUE(fake::wait_for([&] {
    fake::inject(5, 3, wire::data_header(wire::OFFER, 3, C));
    if (const size_t asked = fake::logged("REQ bcast (id=12/3"); asked > served) {
      served = asked;
      inject_all(3, C, payload_of(20));
    }
    return !payloads_sent(wire::COMPLETE).empty();
  }));
  ASSERT_TRUE(fake::wait_for([] { return fake::logged("REQ bcast (id=10/2") >= 2; }));
  inject_all(2, A, payload_of(3000));
  EXPECT_TRUE(wait_delivered({A}));
}

// An OFFER whose owner died, or MISSING for another payload, must not stop or falsify what the log needs now.
TEST_F(dissemination, judges_an_entry_by_its_own_answers)
{
  fake::inject(5, 3, wire::data_header(wire::OFFER, 3, C));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  fake::inject(5, 2, wire::data_header(wire::MISSING, 2, C));
  inject_piece(3, C, payload_of(3000), 0);  // then silence
  ASSERT_TRUE(fake::settle());
  pull(1, {A});
  ASSERT_TRUE(wait_sent(wire::REQ, 2));
  EXPECT_EQ(payloads_sent(wire::REQ)[1], wire::req(1, A, 0, wire::ALL));
  inject_all(2, A, payload_of(20));
  EXPECT_TRUE(wait_delivered({A}));
  EXPECT_EQ(fake::logged("data lost"), 0u);
}

TEST_F(dissemination, drops_hostile_messages_whole)
{
  const bytes payload = payload_of(3000);
  store(B, payload_of(20));
  fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  inject_piece(2, A, payload, 0);
  ASSERT_TRUE(fake::settle());
  const size_t sent = fake::sent().size();
  const size_t lines = fake::log_lines().size();

  const bytes piece = piece_of(payload, 1400);
  const auto data = [&](uint32_t offset, uint32_t total, uint32_t n, const bytes &content) {
    return wire::data_header(wire::DATA, 2, A) + wire::words({offset, total, n}) + content;
  };
  const bytes hostile[] = {data(1400, 3000, 1401, bytes(1401)),
                           data(1400, 3000, 1399, bytes(1399)),
                           data(1400, 3000, 0, {}),
                           data(1400, 3000, 1400, bytes(100)),
                           data(1400, 3000, 0xffffffff, piece),
                           data(1, 3000, 1400, piece),
                           data(4200, 3000, 1400, piece),
                           data(0xfffffa88, 3000, 1400, piece),
                           data(1400, 2800, 1400, piece),
                           data(1400, 0xffffffff, 1400, piece),
                           data(0, 0, 0, {}),
                           data(0, 7, 7, bytes(7)),
                           wire::data_header(wire::OFFER, 2, {2, 0}),
                           wire::data_header(wire::OFFER, 2, {0, 5}),
                           wire::data_header(wire::OFFER, 2, {17, 5}),
                           wire::data_header(wire::OFFER, 0, {2, 5}),
                           wire::data_header(wire::OFFER, 200, {2, 5}),
                           wire::data_header(wire::COMPLETE, 2, {0, 0}),
                           wire::data_header(wire::COMPLETE, 17, A),
                           wire::data_header(wire::MISSING, 255, A),
                           wire::req(0, B, 0, wire::ALL),
                           wire::data(0, A, 1400, 3000, piece),
                           wire::data_header(wire::OFFER, 1, A)};
  for (const bytes &message : hostile) {
    fake::inject(5, 2, message);
  }
  for (const bytes &whole : {wire::data_header(wire::OFFER, 2, C), wire::req(2, B, 0, wire::ALL),
                             data(1400, 3000, 1400, piece), wire::data_header(wire::MISSING, 2, A)}) {
    for (size_t n = 0; n < whole.size(); n += n < 24 ? 1 : 97) {
      fake::inject(5, 2, {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)});
    }
  }
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::sent().size(), sent);
  EXPECT_EQ(fake::log_lines().size(), lines);
  fake::inject(5, 2, wire::data_header(5, 2, A));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::logged("CONS: PAXOS DATA: unknown message type 5\n"), 1u);
  inject_all(2, A, payload);
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(stored(A), payload);
}

// What does not contain its own size was damaged, or comes from a node with another pass phrase: the next try may be
// no better, and must not keep the network busy.
TEST_F(dissemination, fetches_a_damaged_payload_again_after_a_second)
{
  bytes damaged = payload_of(100);
  damaged[4] ^= 1;
  fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  const auto begin = std::chrono::steady_clock::now();
  inject_all(2, A, damaged);
  ASSERT_TRUE(fake::wait_for([] {
    fake::inject(5, 2, wire::data_header(wire::OFFER, 2, A));
    return fake::sent(5, wire::REQ).size() >= 2;
  }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
  EXPECT_FALSE(has(A));
  inject_all(2, A, payload_of(100));
  ASSERT_TRUE(wait_sent(wire::COMPLETE, 1));
}

TEST_F(dissemination, stops_with_every_thread_waiting)
{
  is_delivery_held = true;
  for (const entry &e : {S1, A, S2}) {
    store(e, payload_of(20));
  }
  pull(1, {S1, A, C});
  ASSERT_TRUE(fake::wait_for([] { return deliveries_begun == 1; }));
  auto hand_over =
      std::async(std::launch::async, [] { pull(2, {S2}); });  // waits for the queue, as the pull-thread does
  const std::atomic<bool> ended{false};
  auto offer = std::async(std::launch::async, [&] { paxos_data_offer(7, ended); });
  ASSERT_TRUE(wait_sent(wire::OFFER, 1));
  paxos_data_halt();
  is_delivery_held = false;
  paxos_data_stop();
  offer.get();
  hand_over.get();
  EXPECT_EQ(fake::live_threads(), 0);
  EXPECT_LE(delivered.size(), 1u);
}

TEST_F(dissemination, fails_to_start_without_threads)
{
  for (const uint32_t nth : {1u, 2u}) {
    paxos_data_stop();
    fake::fail(fake::call::thread, nth);
    EXPECT_EQ(paxos_data_start(), -1);
    EXPECT_EQ(fake::live_threads(), 0);
    EXPECT_TRUE(fake::hook_channels().empty());
  }
  EXPECT_EQ(fake::logged("paxos_data_start(): Cannot create deliver-thread.\n"), 1u);
  EXPECT_EQ(fake::logged("paxos_data_start(): Cannot create pull-thread.\n"), 1u);
}

}  // namespace
