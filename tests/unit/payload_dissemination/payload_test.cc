// The cipher, the payload buffer and the payload table.

#include <cstdlib>

#include "layer_fixture.h"
#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_stopped.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_table.h"
#include "vx_cons.h"

namespace
{

using wire::bytes;

bytes crypt(const bytes &input, int encrypt)
{
  bytes output(input.size() + 1, 0x77);
  EXPECT_EQ(cons_crypt(output.data(), input.data(), static_cast<uint32_t>(input.size()), encrypt), 0);
  EXPECT_EQ(output.back(), 0x77);
  output.pop_back();
  return output;
}

// Nodes decrypt each piece alone: state kept from piece to piece would garble all but the first.
TEST(cons_crypt, starts_afresh_with_every_piece)
{
  const bytes first = {0xaa};
  const bytes plain = crypt(first, 0);  // decrypting comes first
  EXPECT_EQ(crypt(plain, 1), first);
  for (const size_t length : {1u, 16u, 17u, 1400u}) {
    SCOPED_TRACE(length);
    bytes piece(length);
    for (size_t i = 0; i < length; ++i) {
      piece[i] = static_cast<uint8_t>(i * 7);
    }
    const bytes secret = crypt(piece, 1);
    EXPECT_EQ(crypt(piece, 1), secret);
    EXPECT_EQ(crypt(secret, 0), piece);
    EXPECT_TRUE(length == 1 || secret != piece);
  }
}

// Values of another implementation: a cipher that only understands itself splits a cluster at its next upgrade. With
// the pass phrase in a file P, MD5 of P as the key K and MD5 of K and P as the vector V:
//   printf 'acknowledged, never lost' | openssl enc -aes-128-cfb -K $K -iv $V
TEST(cons_crypt, has_these_bytes)
{
  const bytes secret = {0xe4, 0xae, 0x9d, 0xa3, 0xb5, 0x41, 0x1e, 0xa6, 0xe3, 0x11, 0x80, 0x38,
                        0xc7, 0xcb, 0x56, 0xa4, 0xb1, 0xea, 0x1f, 0x2a, 0x8f, 0x23, 0xd9, 0xe5};
  EXPECT_EQ(crypt(wire::text("acknowledged, never lost"), 1), secret);
}

TEST(payload_buf, has_these_bytes)
{
  payload_buf *payload = payload_buf_new(2, 3, 1);
  const uint8_t data[] = {5, 6, 7};
  EXPECT_EQ(payload_buf_append(payload, 0, data, 3, 0), 11u);
  EXPECT_EQ(payload_buf_append(payload, 11, nullptr, 0, 9), 19u);
  EXPECT_EQ(bytes(payload, payload + payload_size(payload)), wire::payload(1, {{0, {5, 6, 7}}, {9, {}}}));
  std::free(payload);
  const uint32_t allocations = fake::calls(fake::call::memory);
  EXPECT_EQ(payload_buf_new(1, uint64_t{VX_CONS_PAYLOAD_MAX} + 1, 0),
            nullptr);  // a size that wraps allocates a few bytes
  EXPECT_EQ(fake::calls(fake::call::memory), allocations);
  fake::fail(fake::call::memory, 1);
  std::free(payload_buf_new(1, VX_CONS_PAYLOAD_MAX, 0));
  EXPECT_EQ(fake::calls(fake::call::memory), allocations + 1);  // the longest that a host may submit is tried
  EXPECT_EQ(payload_buf_new(4, UINT64_C(0x100000000), 0), nullptr);
}

payload_entry *entry_of(uint8_t content)
{
  payload_buf *payload = payload_buf_new(1, 1, 0);
  payload_buf_append(payload, 0, &content, 1, 0);
  return payload_entry_new(payload);
}

int content_of(uint32_t id, uint8_t sender)
{
  payload_entry *entry = paxos_data_get_entry(id, sender);
  const int content = entry != nullptr ? entry->payload[16] : -1;
  payload_entry_release(entry);
  return content;
}

class payload_table : public layer_test
{
protected:
  payload_table()
  {
    EXPECT_EQ(paxos_data_init({}), 0);
    paxos_data_stopped = false;  // no threads: the table looks at the flag only
  }
  ~payload_table() override { paxos_data_cleanup(); }
};

// The leak checker finds what is refused and not released.
TEST_F(payload_table, stores_once_per_sender_and_identifier)
{
  paxos_data_hash_entry(entry_of(1), 9, 1);
  paxos_data_hash_entry(entry_of(2), 9, 2);
  paxos_data_hash_entry(entry_of(3), 9, 1);
  EXPECT_EQ(fake::logged("paxos_data_hash_entry(): Message 9 of node 1 already hashed. This should never happen!\n"),
            1u);
  EXPECT_EQ(content_of(9, 1), 1);
  EXPECT_EQ(content_of(9, 2), 2);
  for (const uint8_t sender : {uint8_t{0}, uint8_t{17}, uint8_t{255}}) {
    paxos_data_hash_entry(entry_of(4), 9, sender);
    EXPECT_EQ(paxos_data_has_entry(9, sender), 0);
    EXPECT_EQ(content_of(9, sender), -1);
    paxos_data_unhash_entry(9, sender);
  }
  fake::fail(fake::call::hash_insert, 1);
  paxos_data_hash_entry(entry_of(5), 10, 1);
  EXPECT_EQ(paxos_data_has_entry(10, 1), 0);
  paxos_data_stopped = true;
  paxos_data_hash_entry(entry_of(6), 11, 1);
  EXPECT_EQ(paxos_data_has_entry(11, 1), 0);
  paxos_data_hash_entry(nullptr, 12, 1);
  EXPECT_EQ(payload_entry_new(nullptr), nullptr);
}

// Delivery and DATA use a payload while the next log throws it out.
TEST_F(payload_table, keeps_a_payload_alive_for_who_uses_it)
{
  paxos_data_hash_entry(entry_of(1), 9, 1);
  payload_entry *used = paxos_data_get_entry(9, 1);
  paxos_data_unhash_entry(9, 1);
  EXPECT_EQ(paxos_data_has_entry(9, 1), 0);
  EXPECT_EQ(used->payload[16], 1);
  payload_entry_release(used);
}

TEST_F(payload_table, is_emptied_by_a_reset_of_a_stopped_layer)
{
  paxos_data_hash_entry(entry_of(1), 9, 1);
  EXPECT_EQ(paxos_data_reset(), -1);
  EXPECT_EQ(paxos_data_has_entry(9, 1), 1);
  paxos_data_stopped = true;
  EXPECT_EQ(paxos_data_reset(), 0);
  EXPECT_EQ(paxos_data_has_entry(9, 1), 0);
  EXPECT_EQ(fake::tables_created(), std::vector<uint32_t>(16, 100));
}

// A sender without a table, for want of memory, is a sender without payloads.
TEST_F(payload_table, lives_without_a_row)
{
  paxos_data_cleanup();
  paxos_data_hash_entry(entry_of(1), 9, 1);
  EXPECT_EQ(paxos_data_has_entry(9, 1), 0);
  EXPECT_EQ(paxos_data_reset(), -1);
  EXPECT_EQ(paxos_data_start(), -1);
  fake::fail(fake::call::hash_create, 3);
  ASSERT_EQ(paxos_data_init({}), 0);
  paxos_data_stopped = false;
  paxos_data_hash_entry(entry_of(1), 9, 3);
  paxos_data_hash_entry(entry_of(2), 9, 4);
  EXPECT_EQ(content_of(9, 3), -1);
  EXPECT_EQ(content_of(9, 4), 2);
}

}  // namespace
