#include "service/envelope.h"

#include "common/le_bytes.h"
#include "layer_fixture.h"
#include "service/clmsg.h"
#include "vx_host.h"

namespace
{

using fake::bytes;
using wire::operator+;
using fake::CLUSTER_ID;

class envelope : public layer_test
{
};

TEST_F(envelope, has_these_bytes)
{
  be_node(3, 3);
  const bytes payload = {9, 8, 7};
  cons_msg_send(cons_msg_new(payload.data(), 3), 6, 0, fake::MULTICAST, 0, 0);
  cons_msg_send(cons_msg_new(nullptr, 0), 6, 0, fake::MULTICAST, 0, 0);
  const auto sent = fake::sent();
  ASSERT_EQ(sent.size(), 2u);
  const bytes expected = {0x55, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0xed, 0x5e, 0xad, 0x0b, 127, 1, 0, 3, 3, 0, 0, 0};
  EXPECT_EQ(sent[0].envelope, expected);
  EXPECT_EQ(sent[0].payload, payload);
  EXPECT_EQ(sent[1].envelope[16], 0);
  EXPECT_TRUE(sent[1].payload.empty());
}

// A receiver that forgets a field would let another cluster's decision into our log.
TEST_F(envelope, drops_what_is_not_from_our_cluster_and_build)
{
  const struct {
    const char *what;
    size_t byte;
    bool is_accepted;
  } cases[] = {{"cluster id, first byte", 0, false},   {"cluster id, low word", 3, false},
               {"cluster id, high word", 7, false},    {"build number, first byte", 8, false},
               {"build number, last byte", 11, false}, {"sender address", 12, true}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    bytes object = bytes(4) + fake::envelope(2, 0);
    object[4 + c.byte] ^= 0x80;
    EXPECT_EQ(received_message(object.data()).accepted(), c.is_accepted);
  }
}

TEST_F(envelope, is_null_without_memory)
{
  fake::fail(fake::call::allocate, 1);
  EXPECT_EQ(cons_msg_new(nullptr, 8), nullptr);
  EXPECT_EQ(cons_msg_new(nullptr, 0xffffffff), nullptr);  // 20 more would wrap to a few bytes
}

TEST_F(envelope, names_nodes_by_the_last_octet)
{
  EXPECT_EQ(node_addr_of_id(1), fake::address_of(1));
  EXPECT_EQ(node_id_of_addr(fake::address_of(16)), 16u);
}

bytes heard;
int times_heard;

void hear(const uint8_t *data, uint32_t length, uint32_t type)
{
  heard.assign(data, data + length);
  times_heard += type == 0 ? 1 : 100;
}

class cluster_message : public layer_test
{
protected:
  cluster_message()
  {
    times_heard = 0;
    clmsg_init();
    clmsg_register_hook(0, hear);
  }
  ~cluster_message() override
  {
    clmsg_cleanup();
    EXPECT_EQ(fake::hook_channels(), std::vector<uint32_t>());
  }
};

TEST_F(cluster_message, is_sent_once_and_comes_back)
{
  const bytes data = {1, 2, 3, 4};
  clmsg_bcast(0, data.data(), 4);
  ASSERT_TRUE(fake::settle());
  ASSERT_EQ(fake::sent().size(), 1u);
  const auto sent = fake::sent()[0];
  EXPECT_EQ(sent.payload, (bytes{0, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4}));
  EXPECT_EQ(std::tuple(sent.channel, sent.key, sent.destination, sent.repeat, sent.interval),
            std::tuple(6u, 0u, fake::MULTICAST, 0, 0u));
  EXPECT_EQ(heard, data);

  clmsg_bcast(7, nullptr, 3);  // memory that nobody filled must not leak
  clmsg_bcast(0, nullptr, 0);
  clmsg_bcast(0, nullptr, 0xfffffff0);
  ASSERT_TRUE(fake::settle());
  ASSERT_EQ(fake::sent().size(), 3u);
  EXPECT_EQ(fake::sent()[1].key, 7u);
  EXPECT_EQ(fake::sent()[1].payload, (bytes{7, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(times_heard, 2);
  EXPECT_TRUE(heard.empty());
}

// A length that is believed makes the host read beyond the datagram.
TEST_F(cluster_message, with_a_wrong_length_is_dropped)
{
  const bytes eight(8, 0xee);
  for (const uint32_t length : {9u, 0xfffffff8u, 0xfffffffcu, 0xffffffffu}) {
    fake::inject(6, 2, wire::clmsg(0, length, eight));
  }
  const bytes whole = wire::clmsg(0, 0, {});
  for (size_t n = 0; n < whole.size(); ++n) {
    fake::inject(6, 2, {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)});
  }
  fake::inject(6, 2, wire::clmsg(1, 8, eight));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(times_heard, 0);
  fake::inject(6, 99, wire::clmsg(0, 8, eight));  // any sender, and what is longer than it says
  fake::inject(6, 2, wire::clmsg(0, 3, eight));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(times_heard, 2);
  EXPECT_EQ(heard.size(), 3u);
}

TEST_F(cluster_message, reaches_the_hook_of_index_0_until_it_is_cleared)
{
  clmsg_register_hook(1, nullptr);
  fake::inject(6, 2, wire::clmsg(0, 0, {}));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(times_heard, 1);
  clmsg_register_hook(0, nullptr);
  fake::inject(6, 2, wire::clmsg(0, 0, {}));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(times_heard, 1);
}

}  // namespace
