#include "messaging_nodes.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "network_watch.h"
#include "own_network.h"
#include "sockets.h"

namespace
{

constexpr char LATE_ADDRESS[] = "10.81.7.1";

/// One more address of the loopback interface, as long as it lives.
class late_address
{
public:
  late_address() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in name = socket_address(inet_addr(LATE_ADDRESS), 0);
    memcpy(&request_.ifr_addr, &name, sizeof name);
    EXPECT_EQ(ioctl(socket_.get(), SIOCSIFADDR, &request_), 0);
    name.sin_addr.s_addr = UINT32_MAX;
    memcpy(&request_.ifr_netmask, &name, sizeof name);
    EXPECT_EQ(ioctl(socket_.get(), SIOCSIFNETMASK, &request_), 0);
  }
  ~late_address()
  {
    request_.ifr_flags = 0;  // this takes the address of a label away
    EXPECT_EQ(ioctl(socket_.get(), SIOCSIFFLAGS, &request_), 0);
  }

private:
  unique_fd socket_;
  ifreq request_{.ifr_ifrn = {"lo:late"}, .ifr_ifru = {}};
};

bool await_fault(test_node &node, const std::string &fault)
{
  const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
  while (node.network_fault() != fault && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  return node.network_fault() == fault;
}

template <typename Body>
void put_message(std::vector<uint8_t> &to, uint16_t type, const Body &body)
{
  nlmsghdr head{};
  head.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(sizeof body));
  head.nlmsg_type = type;
  const size_t start = to.size();
  to.resize(start + NLMSG_ALIGN(head.nlmsg_len));
  memcpy(to.data() + start, &head, sizeof head);
  memcpy(to.data() + start + NLMSG_HDRLEN, &body, sizeof body);
}

ifinfomsg link(uint8_t family, int index)
{
  ifinfomsg made{};
  made.ifi_family = family;
  made.ifi_index = index;
  return made;
}

}  // namespace

// A port that leaves a bridge is not gone: a node that took it so would join anew for nothing, one that missed the
// other would stay deaf.
TEST(network, news_tell_which_interfaces_are_gone)
{
  std::vector<uint8_t> bytes;
  put_message(bytes, RTM_NEWROUTE, rtmsg{});
  network_news told;
  read_network_news(bytes, told);
  EXPECT_FALSE(told.is_any || told.has_lost);
  put_message(bytes, RTM_DELLINK, link(AF_BRIDGE, 4));
  put_message(bytes, RTM_NEWLINK, link(AF_UNSPEC, 5));
  put_message(bytes, RTM_DELLINK, link(AF_UNSPEC, 6));
  put_message(bytes, RTM_NEWADDR, ifaddrmsg{});
  read_network_news(bytes, told);
  EXPECT_TRUE(told.is_any);
  EXPECT_FALSE(told.has_lost);
  EXPECT_EQ(told.gone, std::vector<unsigned>{6});
  const size_t last = NLMSG_SPACE(sizeof(ifaddrmsg));
  for (size_t cut = 1; cut < last; ++cut) {
    network_news shorter;
    read_network_news(std::span(bytes).first(bytes.size() - cut), shorter);
    EXPECT_TRUE(shorter.has_lost) << cut;
    EXPECT_EQ(shorter.gone, std::vector<unsigned>{6}) << cut;
  }
}

TEST(network, what_is_missing_is_named)
{
  messaging_settings settings;
  settings.node_id = 9;
  EXPECT_EQ(find_own_network(settings).fault, "");
  EXPECT_EQ(find_own_network(settings).interface, if_nametoindex("lo"));
  settings.interface = "vx9";
  EXPECT_EQ(find_own_network(settings).fault, "there is no interface vx9, which messaging.interface names");
  settings.is_multicast = false;
  EXPECT_EQ(find_own_network(settings).fault, "");
  settings.node_address[8] = inet_addr("192.0.2.9");
  EXPECT_EQ(find_own_network(settings).fault, "address 192.0.2.9 is on no interface");
}

class late_ways : public testing::TestWithParam<bool>
{
};
INSTANTIATE_TEST_SUITE_P(, late_ways, testing::Bool(),
                         [](const auto &way) { return way.param ? "group" : "each_node"; });

// A machine that boots starts the daemon before its address is there, and a network that is configured anew takes it
// away for a while.
TEST_P(late_ways, an_address_may_come_after_the_node_and_go_and_come_again)
{
  record &got = recorder<1>::reset();
  messaging_settings settings;
  settings.node_address[0] = inet_addr(LATE_ADDRESS);
  settings.is_multicast = GetParam();
  test_node node(1, settings);
  test_node other(2, settings);
  node.register_hook(recorder<1>::hook, 4);
  for (uint32_t round = 0; round < 2; ++round) {
    ASSERT_TRUE(await_fault(node, "address 10.81.7.1 is on no interface")) << node.network_fault();
    node.enqueue(tagged(100 + round), 4, 0, GROUP_ADDRESS, 0, 0);
    const late_address there;
    ASSERT_TRUE(await_fault(node, "")) << node.network_fault();
    node.enqueue(tagged(1 + 10 * round), 4, 0, GROUP_ADDRESS, 0, 0);
    other.enqueue(tagged(2 + 10 * round), 4, 0, GROUP_ADDRESS, 0, 0);
    other.enqueue(tagged(3 + 10 * round), 4, 0, node_name(1), 0, 0);
    EXPECT_TRUE(got.await_tag(1 + 10 * round) && got.await_tag(2 + 10 * round) && got.await_tag(3 + 10 * round));
    EXPECT_EQ(got.count_of(100 + round), 0u);
  }
}
