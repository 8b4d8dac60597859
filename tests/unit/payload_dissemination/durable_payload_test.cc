// Durable payloads: what is on disk when it is said, what a restart finds, and when files go.

#include <atomic>
#include <functional>

#include "layer_fixture.h"
#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/loss_watch.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_files.h"
#include "payload_dissemination/payload_table.h"

namespace
{

using wire::bytes;
using wire::operator+;
using wire::entry;

constexpr entry A = {2, 10};
constexpr entry B = {2, 11};
constexpr entry C = {3, 12};
constexpr entry S = {3, 9};

std::atomic<uint32_t> delivered;

std::string name_of(entry e)
{
  return "payloads/" + std::to_string(e.first) + "." + std::to_string(e.second);
}

bytes payload_of(size_t size, uint8_t fill = 3)
{
  return wire::payload(0, {{0, bytes(size - 16, fill)}});
}

bytes state_of(uint32_t number, uint32_t done_id_of_2)
{
  return wire::durable_state_payload("", number, {2, done_id_of_2});
}

class durable_payload : public layer_test
{
protected:
  durable_payload() { begin(); }
  ~durable_payload() override { end(); }

  static void begin(bool is_durable = true)
  {
    delivered = 0;
    ASSERT_EQ(paxos_data_init({.deliver = [](uint32_t, uint8_t, const payload_buf *) { ++delivered; }}), 0);
    ASSERT_EQ(paxos_data_load(is_durable), 0);
    ASSERT_EQ(paxos_data_start(), 0);
  }
  static void end()
  {
    paxos_data_stop();
    paxos_data_cleanup();
    EXPECT_EQ(fake::live_threads(), 0);
  }
  static void restart()
  {
    end();
    begin();
  }
  static void restart_with_damaged(entry e)
  {
    end();
    bytes file = files::read(name_of(e));
    file[80] ^= 1;
    files::write(name_of(e), file);
    begin();
  }
  static void store(entry e, const bytes &payload)
  {
    auto *copy = static_cast<uint8_t *>(std::malloc(payload.size()));
    std::copy(payload.begin(), payload.end(), copy);
    ASSERT_TRUE(paxos_data_hash_entry(payload_entry_new(copy), e.second, e.first));
  }
  static void save(entry e, const bytes &payload)
  {
    store(e, payload);
    ASSERT_TRUE(payload_files_make_durable({.sender = e.first, .msg_id = e.second}));
  }
  static void pull(uint32_t number, const wire::log &entries, uint32_t done_id_of_2 = 0)
  {
    id_batch batch;
    for (const auto &[sender, id] : entries) {
      id_batch_add(&batch, id, sender);
    }
    std::array<uint32_t, NODES_MAX> done_ids = {};
    done_ids[1] = done_id_of_2;
    paxos_data_pull(batch, {}, number, done_ids);
  }
  static bool has(entry e) { return paxos_data_has_entry(e.second, e.first) != 0; }
  static size_t sent(wire::data_type type) { return fake::sent(5, type).size(); }
  static bool wait_sent(wire::data_type type, size_t count)
  {
    return fake::wait_for([=] { return sent(type) >= count; });
  }
  static void offer(entry e) { fake::inject(5, e.first, wire::data_header(wire::OFFER, e.first, e)); }
  static void send(entry e, const bytes &payload)
  {
    for (uint32_t offset = 0; offset < payload.size(); offset += wire::PIECE) {
      const auto n = static_cast<uint32_t>(std::min<size_t>(wire::PIECE, payload.size() - offset));
      bytes secret(n);
      cons_crypt(secret.data(), payload.data() + offset, n, 1);
      fake::inject(5, e.first, wire::data(e.first, e, offset, static_cast<uint32_t>(payload.size()), secret));
    }
  }
};

// A node that says it holds a payload before it is on disk may lose it with the next power cut, and the payload is
// acknowledged by then. One that cannot save it serves it all the same, and tries again.
TEST_F(durable_payload, says_complete_only_for_what_is_on_disk)
{
  const bytes payload = payload_of(4000);
  files::block_saves(name_of(A));
  offer(A);
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  send(A, payload);
  ASSERT_TRUE(fake::wait_logged("payload_store_write(): open(/flashdisk/cons/payloads/2.10.tmp) failed"));
  ASSERT_TRUE(fake::settle());
  EXPECT_TRUE(has(A));
  EXPECT_EQ(sent(wire::COMPLETE), 0u);
  fake::inject(5, 3, wire::req(3, A, 0, wire::ALL));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(sent(wire::DATA), 3u);
  for (int i = 0; i < 5; ++i) {
    offer(A);
  }
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::logged("open(/flashdisk/cons/payloads/2.10.tmp) failed"), 1u);  // once a second at most
  files::unblock_saves(name_of(A));
  ASSERT_TRUE(fake::wait_for([] {
    offer(A);
    return sent(wire::COMPLETE) > 0;
  }));
  const bytes file = files::read(name_of(A));
  ASSERT_EQ(file.size(), 4064u);
  const bytes magic = {'V', 'X', 'P', 'A', 'Y', 'L', 'D', '1'};
  const bytes name = {2, 0, 0, 0};
  EXPECT_EQ(bytes(file.begin(), file.begin() + 32),
            magic + wire::words({0x22334455, 0x11, 10}) + name + wire::words({4000, 0}));
  EXPECT_EQ(bytes(file.begin() + 64, file.end()), payload);
}

TEST_F(durable_payload, comes_back_with_the_very_bytes)
{
  const bytes payload = payload_of(3000);
  save(A, payload);
  restart();
  fake::inject(5, 3, wire::req(3, A, 0, wire::ALL));
  ASSERT_TRUE(wait_sent(wire::DATA, 3));
  offer(A);
  ASSERT_TRUE(wait_sent(wire::COMPLETE, 1));
  EXPECT_EQ(sent(wire::REQ), 0u);
  pull(1, {A});
  EXPECT_TRUE(fake::wait_for([] { return delivered == 1; }));
}

// What is served from a damaged file is not what was acknowledged; and a node that held a payload must not say that it
// lacks it, or the others may take it for lost.
// A process that goes on without durable payloads loses its files, but nothing that it had.
TEST_F(durable_payload, keeps_in_memory_what_the_files_had_when_they_go)
{
  const bytes payload = payload_of(2000);
  store(A, payload);
  store(B, payload);
  for (const entry &e : {A, B}) {
    ASSERT_TRUE(payload_files_make_durable({.sender = e.first, .msg_id = e.second}));
  }
  restart();
  paxos_data_stop();
  bytes damaged = files::read(name_of(B));
  damaged.back() ^= 1;
  files::write(name_of(B), damaged);
  ASSERT_EQ(paxos_data_load(false), 0);
  ASSERT_EQ(paxos_data_start(), 0);
  EXPECT_FALSE(files::exists("payloads"));
  EXPECT_EQ(paxos_data_has_entry(A.second, A.first), 1);
  EXPECT_FALSE(payload_table_knows({.sender = B.first, .msg_id = B.second}));
}

TEST_F(durable_payload, fetches_a_damaged_file_again_and_is_silent_until_then)
{
  const bytes payload = payload_of(3000);
  const struct {
    const char *what;
    std::function<void(bytes &)> damage;
  } cases[] = {{"a byte of the payload", [](bytes &file) { file[2000] ^= 1; }},
               {"a byte of the header", [](bytes &file) { file[24] ^= 1; }},
               {"the checksum", [](bytes &file) { file[40] ^= 1; }},
               {"cut", [](bytes &file) { file.resize(2000); }},
               {"empty", [](bytes &file) { file.clear(); }},
               {"longer", [](bytes &file) { file.push_back(0); }}};
  uint32_t number = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    const entry e = {2, 20 + ++number};
    save(e, payload);
    end();
    bytes file = files::read(name_of(e));
    const bytes sound = file;
    c.damage(file);
    files::write(name_of(e), file);
    begin();
    const size_t asked = sent(wire::REQ);
    const size_t missing = sent(wire::MISSING);
    const size_t served = sent(wire::DATA);
    fake::inject(5, 3, wire::req(3, e, 0, wire::ALL));
    ASSERT_TRUE(fake::settle());
    EXPECT_EQ(sent(wire::MISSING), missing);
    EXPECT_EQ(sent(wire::DATA), served);
    pull(number, {e});
    ASSERT_TRUE(wait_sent(wire::REQ, asked + 1));
    send(e, payload);
    ASSERT_TRUE(fake::wait_for([&] { return files::read(name_of(e)) == sound; }));
    EXPECT_TRUE(fake::wait_for([] { return delivered == 1; }));
  }
}

// Behind what was delivered, too: it is on a quorum of disks no more until it was fetched again.
TEST_F(durable_payload, repairs_what_was_delivered_long_ago)
{
  save(S, state_of(1, 0));
  save(A, payload_of(100));
  restart_with_damaged(A);
  id_batch batch;
  for (const auto &[sender, id] : {S, A, B}) {
    id_batch_add(&batch, id, sender);
  }
  store(B, payload_of(20));
  paxos_data_pull(batch, {.sender = B.first, .msg_id = B.second}, 3);
  ASSERT_TRUE(fake::wait_for([] { return paxos_data_is_base_settled({.sender = S.first, .msg_id = S.second}); }));
  EXPECT_FALSE(has(A));  // first use
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  send(A, payload_of(100));
  EXPECT_TRUE(wait_sent(wire::COMPLETE, 1));
  EXPECT_TRUE(has(A));
}

// Decisions that come faster than a transfer must not end it each time; and when all is repaired, OFFERs are served.
TEST_F(durable_payload, repairs_while_decisions_come)
{
  const bytes payload = payload_of(3 * 1400);
  save(S, state_of(1, 0));
  save(A, payload);
  restart_with_damaged(A);
  id_batch batch;
  for (const entry &e : {S, A}) {
    id_batch_add(&batch, e.second, e.first);
  }
  paxos_data_pull(batch, {.sender = A.first, .msg_id = A.second}, 2);
  EXPECT_FALSE(has(A));
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  for (uint32_t k = 0; k < 3; ++k) {
    bytes secret(1400);
    cons_crypt(secret.data(), payload.data() + 1400 * k, 1400, 1);
    {
      cons_lock lock(paxos_data.pull.lock);
      paxos_data.pull.is_awaited = true;  // as if the record had fetched another payload
    }
    fake::inject(5, 2, wire::data(2, A, 1400 * k, 3 * 1400, secret));
    ASSERT_TRUE(fake::settle());
    if (k < 2) {
      const entry e = {2, 100 + k};
      store(e, payload_of(20));
      id_batch_add(&batch, e.second, e.first);
      paxos_data_pull(batch, {}, 3 + k);
      ASSERT_TRUE(fake::wait_for([&] { return paxos_data_handled() == 3 + k; }));
    }
  }
  EXPECT_TRUE(has(A));
  EXPECT_TRUE(fake::wait_for([] {
    offer(C);
    return sent(wire::REQ) >= 2;
  }));
}

// Files that stay would fill the disk; files that go too early take an acknowledged payload away.
TEST_F(durable_payload, files_go_when_their_payload_is_superseded)
{
  save(S, state_of(1, 0));
  save(A, payload_of(20));
  save(B, payload_of(20));
  const entry abandoned = {2, 8};  // its call died before it was ordered
  const entry later = {2, 30};     // may still be ordered
  const entry vain = {1, 5};       // a state that lost its number to S
  const entry next = {3, 40};      // the state of a decision to come
  save(abandoned, payload_of(20));
  save(later, payload_of(20));
  save(vain, state_of(1, 0));
  save(next, state_of(4, 11));
  pull(1, {S});
  ASSERT_TRUE(fake::wait_for([&] { return !files::exists(name_of(vain)); }));
  EXPECT_TRUE(files::exists(name_of(abandoned)));  // nothing later of node 2 is decided
  pull(3, {S, A, B}, 11);
  ASSERT_TRUE(fake::wait_for([&] { return !files::exists(name_of(abandoned)); }));
  for (const entry &e : {S, A, B, later, next}) {
    EXPECT_TRUE(files::exists(name_of(e)));
  }
  files::write("payloads/2.77.tmp", {1});  // no disk that was read-only for a while keeps it for good
  pull(4, {next}, 11);
  ASSERT_TRUE(fake::wait_for([] { return !files::exists("payloads/2.77.tmp"); }));
  ASSERT_TRUE(fake::wait_for(
      [&] { return !files::exists(name_of(S)) && !files::exists(name_of(A)) && !files::exists(name_of(B)); }));
  EXPECT_TRUE(files::exists(name_of(next)));
  EXPECT_TRUE(files::exists(name_of(later)));

  files::write("payloads/2.99.tmp", {1});
  files::write("payloads/notes", {1});
  bytes foreign = files::read(name_of(later));
  foreign[8] ^= 1;
  files::write(name_of(C), foreign);
  restart();
  pull(4, {next}, 30);
  ASSERT_TRUE(fake::wait_for([&] { return !files::exists(name_of(later)); }));
  EXPECT_EQ(fake::logged("payload (id=30/2) on disk is superseded - removed"), 1u);
  EXPECT_EQ(fake::logged("payload (id=12/3) on disk is of another cluster - removed"), 1u);
  EXPECT_EQ(fake::logged("is no payload - removed"), 2u);
  EXPECT_FALSE(files::exists(name_of(C)) || files::exists("payloads/notes"));
  EXPECT_TRUE(files::exists(name_of(next)));
  end();
  begin(false);  // without durable payloads no file stays
  EXPECT_FALSE(files::exists("payloads"));
  end();
  begin();
}

// A leader needs the state that its log begins with: it says which identifiers are done. Where all nodes lack it, it
// was made before payloads were durable.
TEST_F(durable_payload, settles_the_base_of_the_log)
{
  id_batch batch;
  id_batch_add(&batch, S.second, S.first);
  paxos_data_pull(batch, {.sender = S.first, .msg_id = S.second}, 1);  // delivered before a restart
  ASSERT_TRUE(wait_sent(wire::REQ, 1));
  EXPECT_FALSE(paxos_data_is_base_settled({.sender = S.first, .msg_id = S.second}));
  for (const uint32_t from : {2u, 3u}) {
    fake::call_hook(5, from, wire::data_header(wire::MISSING, from, S));
    paxos_data_losses->is_not_ahead(from);
  }
  EXPECT_TRUE(fake::wait_for([] { return paxos_data_is_base_settled({.sender = S.first, .msg_id = S.second}); }));
  EXPECT_EQ(fake::logged("data lost"), 0u);
}

}  // namespace
