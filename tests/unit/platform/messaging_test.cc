#include "messaging_nodes.h"
#include "scratch.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <future>

namespace
{

constexpr uint32_t GROUP = GROUP_ADDRESS;

void send_raw(const test_node &to, uint32_t channel, const void *bytes, size_t size, uint32_t from = node_name(2))
{
  const unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = from;
  ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  address.sin_addr.s_addr = to.settings.own_address();
  address.sin_port = htons(static_cast<uint16_t>(to.settings.port_base + channel));
  ASSERT_EQ(sendto(fd.get(), bytes, size, 0, reinterpret_cast<sockaddr *>(&address), sizeof address),
            static_cast<ssize_t>(size));
}

}  // namespace

class messaging_ways : public testing::TestWithParam<bool>
{
};
INSTANTIATE_TEST_SUITE_P(, messaging_ways, testing::Bool(),
                         [](const auto &way) { return way.param ? "group" : "each_node"; });

// The register protocol counts the sender's own answer: a service whose group or own address misses it hangs.
TEST_P(messaging_ways, what_is_for_all_reaches_the_sender_too)
{
  record &first = recorder<1>::reset();
  record &second = recorder<2>::reset();
  test_node one(1, {}, 8 << 20, GetParam());
  test_node two(2, {}, 8 << 20, GetParam());
  one.register_hook(recorder<1>::hook, 4);
  two.register_hook(recorder<2>::hook, 4);
  one.enqueue(tagged(10), 4, 0, GROUP, 0, 0);
  one.enqueue(tagged(11), 4, 0, node_name(1), 0, 0);
  one.enqueue(tagged(12), 4, 0, node_name(2), 0, 0);
  one.enqueue(tagged(13), 3, 0, GROUP, 0, 0);
  one.enqueue(tagged(14, 65483), 4, 0, GROUP, 0, 0);
  EXPECT_TRUE(first.await_tag(10) && first.await_tag(11) && first.await_tag(14));
  EXPECT_TRUE(second.await_tag(10) && second.await_tag(12) && second.await_tag(14));
  EXPECT_EQ(first.size(), 3u);
  EXPECT_EQ(second.size(), 3u);
  record &first_pieces = recorder<3>::reset();
  record &second_pieces = recorder<4>::reset();
  one.register_hook(recorder<3>::hook, 5);
  two.register_hook(recorder<4>::hook, 5);
  for (uint32_t piece = 0; piece < 600; ++piece) {
    one.enqueue(tagged(100 + piece, 1400), 5, 2, GROUP, 0, 0);
  }
  EXPECT_TRUE(first_pieces.await_tag(699) && second_pieces.await_tag(699));
  EXPECT_EQ(first_pieces.size(), 600u);
  EXPECT_EQ(second_pieces.size(), 600u);
}

TEST(messaging, foreign_and_damaged_datagrams_are_counted_and_dropped)
{
  record &got = recorder<1>::reset();
  test_node node(1);
  node.register_hook(recorder<1>::hook, 3);
  message_ptr good = tagged(7, 30);
  write_word(*good, 3, false);
  const size_t size = good->datagram_size();
  uint8_t *bytes = good->object();
  uint64_t foreign = 0;
  uint64_t damaged = 0;
  for (size_t cut = 0; cut < size; ++cut) {
    send_raw(node, 3, bytes, cut);
    ++(cut < WORD_SIZE ? foreign : damaged);
  }
  const struct {
    size_t offset;
    uint8_t value;
    bool is_foreign;
  } changes[] = {{0, 'W', true},  {1, 'Y', true},  {2, 2, true},     {3, 4, false},
                 {20, 31, false}, {20, 29, false}, {23, 0xff, false}};
  for (const auto &change : changes) {
    const uint8_t before = std::exchange(bytes[change.offset], change.value);
    send_raw(node, 3, bytes, size);
    bytes[change.offset] = before;
    ++(change.is_foreign ? foreign : damaged);
  }
  send_raw(node, 3, bytes, size, node_name(17));
  send_raw(node, 3, bytes, size);
  ASSERT_TRUE(got.await_tag(7));
  EXPECT_EQ(got.size(), 1u);
  EXPECT_EQ(node.dropped(drop_reason::stranger), 1u);
  EXPECT_EQ(node.statistics().peers[1].dropped[static_cast<size_t>(drop_reason::damaged)], damaged);
  EXPECT_EQ(node.dropped(drop_reason::foreign), foreign);
  EXPECT_EQ(node.dropped(drop_reason::damaged), damaged);
}

// The library drops it without a word, and does not know where it came from.
TEST(messaging, what_is_of_another_cluster_or_build_is_counted_and_handed_over)
{
  record &library = recorder<1>::reset();
  record &host = recorder<2>::reset();
  test_node node(1);
  node.register_hook(recorder<1>::hook, 6);
  node.register_hook(recorder<2>::hook, 7);
  uint32_t tag = 0;
  const auto count_of = [&](uint32_t channel, uint64_t cluster, drop_reason reason) {
    message_ptr sent = tagged(++tag);
    memcpy(sent->object() + WORD_SIZE, &cluster, sizeof cluster);
    write_word(*sent, channel, false);
    send_raw(node, channel, sent->object(), sent->datagram_size());
    EXPECT_TRUE((channel == 7 ? host : library).await_tag(tag));
    const uint64_t count = node.statistics().peers[1].dropped[static_cast<size_t>(reason)];
    EXPECT_EQ(node.dropped(reason), count);
    return count;
  };
  EXPECT_EQ(count_of(6, 4, drop_reason::other_cluster), 0u) << "nobody said what to expect";
  node.expect(5, 0);
  EXPECT_EQ(count_of(6, 4, drop_reason::other_cluster), 1u);
  EXPECT_EQ(count_of(7, 4, drop_reason::other_cluster), 1u) << "hellos are heard across clusters";
  EXPECT_EQ(count_of(6, 5, drop_reason::other_build), 0u);
  node.expect(5, 1);
  EXPECT_EQ(count_of(6, 5, drop_reason::other_build), 1u);
  EXPECT_EQ(node.dropped(drop_reason::other_cluster), 1u);
  EXPECT_EQ(node.statistics().channels[6 - CHANNEL_FIRST].dropped[static_cast<size_t>(drop_reason::other_cluster)], 1u);
}

// Nodes of two versions would not understand each other if these bytes changed.
TEST(messaging, the_word_names_magic_class_and_channel)
{
  const struct {
    uint32_t channel;
    uint32_t key;
    uint8_t word[WORD_SIZE];
    datagram_check check;
  } cases[] = {{5, 2, {'V', 'X', 1, 5}, datagram_check::bulk},
               {5, 3, {'V', 'X', 0, 5}, datagram_check::good},
               {4, 2, {'V', 'X', 0, 4}, datagram_check::good}};
  for (const auto &c : cases) {
    message_ptr one = tagged(0);
    write_word(*one, c.channel, is_bulk(c.channel, c.key));
    EXPECT_EQ(memcmp(one->object(), c.word, WORD_SIZE), 0);
    EXPECT_EQ(check_datagram(one->object(), one->datagram_size(), c.channel), c.check);
  }
}

// Channel 4's hook waits for the proposer, which waits for channel 3.
TEST(messaging, a_hook_that_blocks_holds_up_neither_other_channels_nor_the_sender_nor_the_kernel)
{
  std::promise<void> release;
  std::shared_future<void> released = release.get_future();
  record &slow = recorder<1>::reset([=](uint32_t) { released.wait(); });
  record &quick = recorder<2>::reset();
  test_node node(1, 65536);
  node.register_hook(recorder<1>::hook, 4);
  node.register_hook(recorder<2>::hook, 3);
  for (uint32_t i = 0; i < 2000; ++i) {
    node.enqueue(tagged(i, 1400), 4, 0, GROUP, 0, 0);
    node.enqueue(tagged(i), 3, 0, GROUP, 0, 0);
    ASSERT_TRUE(quick.await_tag(i));
  }
  node.unregister_hook(recorder<2>::hook);
  EXPECT_EQ(slow.size(), 1u);
  release.set_value();
  EXPECT_TRUE(slow.await([](record &r) { return r.tags.size() == 2000; }));
  EXPECT_EQ(node.dropped(drop_reason::receive_overflow), 0u);
}

TEST(messaging, control_overtakes_bulk_that_waits_for_a_hook)
{
  record &got = recorder<1>::reset();
  messaging_counters counters;
  filter_gate gate(counters);
  channel_dispatch channel(counters, gate, 5);
  channel.set_hook(recorder<1>::hook);
  message_list control;
  message_list bulk;
  bulk.push_back(tagged(1));
  bulk.push_back(tagged(2));
  channel.put(control, bulk);
  control.push_back(tagged(3));
  channel.put(control, bulk);
  channel.start();
  EXPECT_TRUE(got.await([](record &r) { return r.tags == std::vector<uint32_t>{3, 1, 2}; }));
  channel.stop();
}

// A node that isolates itself unregisters the very hook it is in.
TEST(messaging, unregister_works_from_within_and_no_call_begins_after_it)
{
  test_node node(1);
  record &got = recorder<1>::reset([&](uint32_t) { node.unregister_hook(recorder<1>::hook); });
  record &next = recorder<2>::reset();
  node.register_hook(recorder<1>::hook, 4);
  for (uint32_t i = 0; i < 100; ++i) {
    node.enqueue(tagged(i), 4, 0, node_name(1), 0, 0);
  }
  EXPECT_TRUE(got.await([](record &r) { return !r.tags.empty(); }));
  // FIFO within the channel: behind this one, the 100 have been judged.
  node.register_hook(recorder<2>::hook, 4);
  node.unregister_hook(recorder<1>::hook);
  node.enqueue(tagged(1000), 4, 0, node_name(1), 0, 0);
  EXPECT_TRUE(next.await_tag(1000));
  EXPECT_EQ(got.size(), 1u);
  EXPECT_EQ(next.size() + 1 + node.dropped(drop_reason::no_hook), 101u);
}

TEST(messaging, a_dequeued_message_is_never_sent_again)
{
  record &got = recorder<1>::reset();
  test_node node(1);
  node.register_hook(recorder<1>::hook, 3);
  for (uint32_t round = 0; round < 100; ++round) {
    SCOPED_TRACE(round);
    const uint32_t tag = round * 4;
    void *handle = node.enqueue(tagged(tag), 3, 5, node_name(1), -1, 1);
    node.enqueue(tagged(tag + 1), 3, 6, node_name(1), -1, 1);
    ASSERT_TRUE(got.await_tag(tag, 1 + round % 3) && got.await_tag(tag + 1, 2));
    node.dequeue(handle, 0, 0);
    node.dequeue(nullptr, 3, round % 2 == 0 ? 6 : UINT32_MAX);
    const uint64_t sent = node.statistics().sent;
    EXPECT_EQ(node.statistics().queued, 0u);
    // This one measures the time in which the others would be sent again.
    node.enqueue(tagged(tag + 2), 3, 7, node_name(1), -1, 1);
    ASSERT_TRUE(got.await_tag(tag + 2, 4));
    node.dequeue(handle, 0, 0);
    node.dequeue(nullptr, 3, 7);
    node.enqueue(tagged(tag + 3), 3, 7, node_name(1), 0, 0);
    ASSERT_TRUE(got.await_tag(tag + 3));
    EXPECT_EQ(node.statistics().sent, sent + got.count_of(tag + 2) + 1);
  }
}

TEST(messaging, what_cannot_be_sent_is_refused_and_counted)
{
  test_node node(1);
  EXPECT_EQ(node.enqueue(tagged(0, 65484), 4, 0, GROUP, 0, 0), nullptr) << "longer than a datagram";
  EXPECT_EQ(node.enqueue(tagged(0), 8, 0, GROUP, 0, 0), nullptr) << "no such channel";
  EXPECT_EQ(node.enqueue(tagged(0), 4, 0, node_name(17), 0, 0), nullptr) << "no such node";
  EXPECT_EQ(node.dropped(drop_reason::send_failed), 3u);
  messaging not_started;
  EXPECT_EQ(not_started.enqueue(tagged(0), 4, 0, GROUP, -1, 1), nullptr);
}

TEST(messaging, a_blocked_node_is_not_heard)
{
  record &got = recorder<1>::reset();
  test_node one(1);
  test_node two(2);
  one.register_hook(recorder<1>::hook, 7);
  one.block(1u << 1);
  two.enqueue(tagged(1), 7, 0, GROUP, 0, 0);
  one.enqueue(tagged(2), 7, 0, GROUP, 0, 0);
  ASSERT_TRUE(got.await_tag(2));
  one.block(0);
  two.enqueue(tagged(3), 7, 0, GROUP, 0, 0);
  ASSERT_TRUE(got.await_tag(3));
  EXPECT_EQ(got.count_of(1), 0u);
  EXPECT_EQ(one.dropped(drop_reason::blocked), 1u);
}

// Every kind of transmission, with keys that change while messages are repeated.
TEST(messaging, sealed_nodes_hear_each_other_and_nobody_else)
{
  const auto keys = [](const std::string &text) {
    seal_keys made;
    std::string error;
    EXPECT_TRUE(seal_keys_parse(text, "keys", made, error)) << error;
    return made;
  };
  const std::string first = " 1 " + std::string(64, '1') + "\n", second = " 2 " + std::string(64, '2') + "\n";
  record &got = recorder<1>::reset();
  record &own = recorder<2>::reset();
  test_node one(1, keys("seal" + first));
  test_node two(2, keys("seal" + first));
  test_node plain(3);
  one.register_hook(recorder<1>::hook, 5);
  two.register_hook(recorder<2>::hook, 5);
  message_ptr of_plain = tagged(99);
  plain.enqueue(std::move(of_plain), 5, 0, GROUP, -1, 1);
  two.enqueue(tagged(10), 5, 0, GROUP, -1, 1);
  ASSERT_TRUE(got.await_tag(10, 3)) << "repeated, each time sealed anew";
  two.enqueue(tagged(11), 5, 0, node_name(1), 0, 0);
  two.enqueue(tagged(12, 1400), 5, 2, GROUP, 0, 0);
  for (uint32_t piece = 0; piece < 500; ++piece) {
    two.enqueue(tagged(1000 + piece, 1400), 5, 2, GROUP, 0, 0);
  }
  EXPECT_TRUE(got.await_tag(11) && got.await_tag(12) && got.await_tag(1499) && own.await_tag(1499));
  EXPECT_EQ(two.enqueue(tagged(13, 65483), 5, 0, GROUP, 0, 0), nullptr) << "no room for the seal";
  EXPECT_NE(two.enqueue(tagged(14, 65455), 5, 0, GROUP, 0, 0), nullptr);
  EXPECT_TRUE(got.await_tag(14));
  EXPECT_EQ(one.statistics().peers[1].key, 1);

  one.set_keys(keys("seal" + first + "accept" + second));
  two.set_keys(keys("seal" + second));
  const size_t before = got.count_of(10);
  EXPECT_TRUE(got.await_tag(10, before + 3));
  EXPECT_EQ(one.statistics().peers[1].key, 2);
  EXPECT_EQ(got.count_of(99), 0u);
  EXPECT_GT(one.dropped(drop_reason::unsealed), 0u);
  one.set_keys(keys("seal" + first + "accept plain"));
  EXPECT_TRUE(got.await_tag(99));
}

namespace
{

/// Refuses channel 3 on the way in and key 4 of channel 5 on the way out.
struct votes_and_missing final : message_filter {
  bool lets_in(const message_view &one) noexcept override { return one.channel != 3; }
  bool lets_out(const message_view &one) noexcept override
  {
    is_view_good = is_view_good && one.payload.size() == 4 && one.cluster_id == 0x1234567800000001 && one.build == 9;
    return one.channel != 5 || one.key != 4;
  }
  std::atomic<bool> is_view_good{true};
};

bool await_dropped(test_node &node, drop_reason reason, uint64_t count)
{
  const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
  while (node.dropped(reason) < count && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  return node.dropped(reason) >= count;
}

message_ptr enveloped(uint32_t tag)
{
  message_ptr made = tagged(tag);
  const uint8_t identity[] = {1, 0, 0, 0, 0x78, 0x56, 0x34, 0x12, 9, 0, 0, 0};
  memcpy(made->object() + WORD_SIZE, identity, sizeof identity);
  return made;
}

}  // namespace

// A vote that slips through, or one more MISSING of a message queued before, makes a node without a past count.
TEST(messaging, a_filter_refuses_at_any_time_and_what_is_repeated_too)
{
  record &votes = recorder<1>::reset();
  record &pieces = recorder<2>::reset();
  votes_and_missing filter;
  test_node node(1);
  node.register_hook(recorder<1>::hook, 3);
  node.register_hook(recorder<2>::hook, 5);
  void *repeated = node.enqueue(enveloped(1), 5, 4, GROUP, -1, 1);
  ASSERT_TRUE(pieces.await_tag(1, 2));
  for (uint32_t round = 0; round < 50; ++round) {
    node.set_filter(&filter);
    EXPECT_NE(node.enqueue(enveloped(2), 5, 4, GROUP, 0, 0), nullptr) << "refused is not failed";
    node.enqueue(enveloped(3), 3, 0, GROUP, 0, 0);
    node.enqueue(enveloped(100 + round), 5, 3, GROUP, 0, 0);
    ASSERT_TRUE(pieces.await_tag(100 + round));
    const uint64_t refused = node.dropped(drop_reason::filtered_out);
    const size_t came = pieces.count_of(1);
    ASSERT_TRUE(await_dropped(node, drop_reason::filtered_out, refused + 2));
    EXPECT_LE(pieces.count_of(1), came + 1) << "one may have been under way";
    ASSERT_TRUE(await_dropped(node, drop_reason::filtered_in, round + 1));
    node.set_filter(nullptr);
    node.enqueue(enveloped(1000 + round), 3, 0, GROUP, 0, 0);
    ASSERT_TRUE(votes.await_tag(1000 + round) && pieces.await_tag(1, came + 3));
  }
  node.dequeue(repeated, 0, 0);
  EXPECT_EQ(votes.count_of(3) + pieces.count_of(2), 0u);
  EXPECT_TRUE(filter.is_view_good);
}

TEST(messaging, two_processes_cannot_be_one_node_and_a_stopped_one_can_start_again)
{
  record &got = recorder<1>::reset();
  test_node node(3);
  node.register_hook(recorder<1>::hook, 4);
  std::string error;
  {
    messaging other;
    EXPECT_FALSE(other.start(node.settings, error));
    EXPECT_EQ(error, "messaging: cannot receive on 127.1.0.3 port 17483: Address already in use");
  }
  node.enqueue(tagged(1), 4, 0, GROUP, -1, 1);
  node.stop();
  ASSERT_TRUE(node.start(node.settings, error)) << error;
  EXPECT_EQ(node.statistics().queued, 0u);
  node.enqueue(tagged(2), 4, 0, GROUP, 0, 0);
  EXPECT_TRUE(got.await_tag(2));
}

TEST(messaging, bad_settings_are_refused_with_their_place)
{
  const scratch dir;
  const struct {
    const char *text;
    const char *error;
  } cases[] = {
      {"a = 1\n", ": cluster.node_id: not set"},
      {"cluster.node_id = 17\n", ":1: cluster.node_id: \"17\" is not a whole number from 1 to 16"},
      {"cluster.node_id = 1\nmessaging.node[2].address = 127.1.0.1\n",
       ":2: messaging.node[2].address: 127.1.0.1 is the address of node 1"},
      {"cluster.node_id = 1\nmessaging.node[2].address = 224.0.0.1\n",
       ":2: messaging.node[2].address: \"224.0.0.1\" is not the IPv4 address of a node"},
      {"cluster.node_id = 1\nmessaging.interface = no/name\n",
       ":2: messaging.interface: \"no/name\" is not an IPv4 address, or the name of an interface"},
  };
  for (const auto &c : cases) {
    messaging_settings settings;
    std::string error;
    const std::string path = dir.write("conf", c.text);
    ASSERT_TRUE(config_load(path, error));
    EXPECT_FALSE(messaging_read_settings(settings, error));
    EXPECT_EQ(error, path + c.error);
  }
}
