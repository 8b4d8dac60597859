#include "broker_frame.h"
#include "messaging_nodes.h"
#include "scratch.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <future>
#include <thread>

namespace
{

/// The other end: a broker that does only what the test says.
struct played_broker {
  explicit played_broker(const std::string &path) : listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
  {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&name), sizeof name), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
  }
  void accept_node() { node = unique_fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
  std::vector<uint8_t> read()
  {
    std::vector<uint8_t> frame(70'000);
    const ssize_t size = recv(node.get(), frame.data(), frame.size(), 0);
    frame.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return frame;
  }
  void write(const std::vector<uint8_t> &frame)
  {
    EXPECT_EQ(send(node.get(), frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
  }

  unique_fd listener;
  unique_fd node;
};

}  // namespace

// A broker of the laboratory and nodes of this build must mean the same by these bytes; and a broker that dies must
// not take its nodes along, nor leave one of them in a mark.
TEST(broker_transport, carries_datagrams_and_marks_and_outlives_the_broker)
{
  const scratch dir;
  played_broker broker(dir.path("broker"));
  messaging_settings settings;
  settings.node_id = 2;
  settings.broker = dir.path("broker");
  record &got = recorder<1>::reset();
  messaging node;
  std::string error;
  ASSERT_TRUE(node.start(settings, error)) << error;
  node.register_hook(recorder<1>::hook, 5);
  broker.accept_node();
  EXPECT_EQ(broker.read(), (std::vector<uint8_t>{'H', 2, 1, 0}));

  node.enqueue(tagged(7), 5, 2, GROUP_ADDRESS, 0, 0);
  std::vector<uint8_t> sent = broker.read();
  ASSERT_EQ(sent.size(), FRAME_HEADER_SIZE + WORD_SIZE + ENVELOPE_SIZE + 4);
  EXPECT_EQ(std::vector<uint8_t>(sent.begin(), sent.begin() + 8), (std::vector<uint8_t>{'D', 0, 0, 0, 'V', 'X', 1, 5}));
  node.enqueue(tagged(8), 5, 3, node_name(16), 0, 0);
  EXPECT_EQ(broker.read()[1], 16);

  sent[1] = 3;
  for (const size_t cut : {size_t{4}, size_t{7}, size_t{20}, sent.size() - 1}) {
    broker.write({sent.begin(), sent.begin() + static_cast<ptrdiff_t>(cut)});
  }
  sent[7] = 200;
  broker.write(sent);
  sent[7] = 5;
  broker.write(sent);
  EXPECT_TRUE(got.await_tag(7));
  EXPECT_EQ(got.size(), 1u);
  const auto dropped = node.statistics().dropped;
  EXPECT_EQ(dropped[static_cast<size_t>(drop_reason::foreign)], 2u);
  EXPECT_EQ(dropped[static_cast<size_t>(drop_reason::damaged)], 3u);

  std::future<void> passed = std::async(std::launch::async, [&] { node.mark("here"); });
  EXPECT_EQ(broker.read(), (std::vector<uint8_t>{'M', 0, 1, 0, 'h', 'e', 'r', 'e'}));
  broker.write({'G', 0, 2, 0});
  EXPECT_EQ(passed.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout) << "not its ticket";
  broker.write({'G', 0, 1, 0});
  ASSERT_EQ(passed.wait_for(PATIENCE), std::future_status::ready);

  std::future<void> stuck = std::async(std::launch::async, [&] { node.mark("there"); });
  broker.read();
  broker.node.reset();
  ASSERT_EQ(stuck.wait_for(PATIENCE), std::future_status::ready);
  EXPECT_EQ(node.enqueue(tagged(9), 4, 0, GROUP_ADDRESS, 0, 0), nullptr);
  EXPECT_EQ(node.statistics().dropped[static_cast<size_t>(drop_reason::send_failed)], 1u);
  node.stop();
}
