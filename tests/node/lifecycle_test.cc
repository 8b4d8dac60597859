// Bringing the library up and down, its configuration and files, and calls in every order.

#include <random>
#include <thread>

#include "node_fixture.h"

namespace
{

const std::vector<uint32_t> ONLY_VOTES_AND_CLMSG = {3, 6};

TEST_P(node, writes_its_configuration_and_an_empty_log)
{
  configure(1, 3);
  const std::vector<std::string> expected = {"set cluster.mtime=0",
                                             "set cluster.ipaddr=10.0.0.1",
                                             "set cluster.netmask=255.0.0.0",
                                             "set cluster.gateway=10.0.0.254",
                                             "set cluster.node._s_=3",
                                             std::string("set cluster.node[0].mac=") + fake::MAC,
                                             std::string("set cluster.node[1].mac=") + fake::MAC,
                                             std::string("set cluster.node[2].mac=") + fake::MAC,
                                             "set cluster.node_id=1",
                                             "save 1"};
  EXPECT_EQ(fake::config_calls(), expected);
  EXPECT_EQ(files::all(), (std::map<std::string, bytes>{
                              {"msg_id", {1, 0, 0, 0}}, {"paxos_decide", bytes(1258)}, {"paxos_deliver", bytes(5)}}));
  ASSERT_EQ(vx_cons_start(), 0);
  EXPECT_EQ(fake::number_calls(), std::vector<std::string>{"001122334455,16,0,0,0"});
  EXPECT_TRUE(
      fake::in_order({"CONS: Reset PAXOS ...\n", "CONS: PAXOS reset successful.\n",
                      "CONS: Cluster node initialized (cnt=3, quorum=2, node_id=1).\n", "CONS: PAXOS started\n"}));
  EXPECT_EQ(vx_cons_get_node_count(), 3u);
  EXPECT_EQ(configure_call(1, 2), -1);
  EXPECT_EQ(fake::logged("Cannot reconfigure cluster when it is active.\n"), 1u);
  vx_cons_stop();
  EXPECT_EQ(configure_call(2, 1), 0);  // the keys of nodes that are no more must go
  EXPECT_EQ(fake::config("cluster.node[0].mac"), fake::MAC);
  EXPECT_EQ(fake::config("cluster.node[1].mac"), "(unset)");
  EXPECT_EQ(fake::config("cluster.node[2].mac"), "(unset)");
}

TEST_P(node, refuses_an_unusable_configuration)
{
  const char *const count_line = "cluster.node._s_ config variable not set or invalid\n";
  const char *const mac_line = "cluster.node[0].mac config variable not set or invalid\n";
  const char *const id_line = "cluster_node_id config variable not set or invalid\n";
  const struct {
    const char *count, *mac, *id, *line;
  } cases[] = {
      {"0", fake::MAC, "1", count_line}, {"17", fake::MAC, "1", count_line}, {"3", "00:00:00:00:00:00", "1", mac_line},
      {"3", "", "1", mac_line},          {"3", fake::MAC, "0", id_line},     {"3", fake::MAC, "4", id_line},
      {"16", fake::MAC, "17", id_line}};
  configure(1, 3);
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.count) + " " + c.mac + " " + c.id);
    fake::config_set("cluster.node._s_", c.count);
    fake::config_set("cluster.node[0].mac", c.mac);
    fake::config_set("cluster.node_id", c.id);
    const size_t before = fake::logged(c.line);
    EXPECT_EQ(vx_cons_start(), -1);
    EXPECT_EQ(fake::logged(c.line), before + 1);
    EXPECT_EQ(vx_cons_cluster_active(), 0);
    EXPECT_EQ(fake::live_threads(), 0);
    EXPECT_EQ(fake::hook_channels(), ONLY_VOTES_AND_CLMSG);
  }
  fake::fail(fake::call::cfg_get, 1);
  EXPECT_EQ(vx_cons_start(), -1);
  for (uint32_t nth = 1; nth <= 9; ++nth) {
    fake::fail(fake::call::cfg_set, nth);
    EXPECT_EQ(configure_call(1, 3), -1) << nth;
  }
  fake::fail(fake::call::cfg_save, 1);
  EXPECT_EQ(configure_call(1, 3), -1);
  files::block_saves("paxos_deliver");
  EXPECT_EQ(configure_call(1, 3), -1);
  EXPECT_EQ(fake::logged("PAXOS reset failed.\n"), 1u);
  files::unblock_saves("paxos_deliver");
  EXPECT_EQ(configure_call(1, 3), 0);
  EXPECT_EQ(vx_cons_start(), 0);
}

TEST_P(node, isolates_itself_on_files_that_it_cannot_trust)
{
  configure(1, 3);
  const wire::log log = {{2, 3}, {3, 4}};
  const bytes sound = wire::words({9}) + wire::log_bytes(log);
  const auto with = [&](size_t at, const bytes &changed) {
    bytes out = sound;
    std::copy(changed.begin(), changed.end(), out.begin() + static_cast<ptrdiff_t>(at));
    return out;
  };
  const struct {
    const char *what, *name;
    bytes content;
  } cases[] = {{"empty", "paxos_decide", {}},
               {"short", "paxos_decide", {sound.begin(), sound.end() - 1}},
               {"count 251", "paxos_decide", with(4, wire::words({251}))},
               {"count all ones", "paxos_decide", with(4, wire::words({wire::ALL}))},
               {"sender 0", "paxos_decide", with(13, {0})},
               {"sender 17", "paxos_decide", with(13, {17})},
               {"identifier 0", "paxos_decide", with(9, wire::words({0}))},
               {"empty", "paxos_deliver", {}},
               {"short", "paxos_deliver", {2, 3, 0, 0}},
               {"absent", "paxos_decide", {}},
               {"absent", "paxos_deliver", {}}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.what);
    set_decided(9, log, {2, 3});
    files::write(c.name, c.content);
    if (c.what == std::string("absent")) {
      std::filesystem::remove(files::path(c.name));
    }
    const size_t before = fake::logged("Isolating from cluster ...\n");
    EXPECT_EQ(vx_cons_start(), -1);
    EXPECT_EQ(fake::logged("Isolating from cluster ...\n"), before + 1);
    expect_stopped();
  }
  EXPECT_EQ(fake::logged("store_read(): CRITICAL - read(/flashdisk/cons/paxos_deliver) failed (file size incorrect? "
                         "should be 5 bytes)\n"),
            2u);
  files::write("paxos_decide", sound + bytes(42));  // longer is no fault
  files::write("paxos_deliver", wire::entry_bytes({3, 4}));
  EXPECT_EQ(vx_cons_start(), 0);
}

TEST_P(node, starts_nothing_when_a_thread_cannot_be_created)
{
  configure(1, 3);
  const char *const names[] = {"deliver", "pull", "propose", "launch", "leader-watch"};
  for (uint32_t nth = 1; nth <= 5; ++nth) {
    SCOPED_TRACE(nth);
    fake::fail(fake::call::thread, nth);
    EXPECT_EQ(vx_cons_start(), -1);
    EXPECT_EQ(fake::logged(std::string("Cannot create ") + names[nth - 1] + "-thread.\n"), 1u);
    expect_stopped();
  }
  EXPECT_EQ(vx_cons_start(), 0);
  EXPECT_EQ(vx_cons_start(), 0);
  EXPECT_EQ(fake::live_threads(), 5);
  EXPECT_EQ(fake::logged("CONS: PAXOS started\n"), 1u);
}

// A thread of the host had begun its call of the hook when stop began.
TEST_P(node, handles_no_message_that_enters_after_its_stop)
{
  start_as("BACKUP");
  const auto offer = fake::late_call(5, 2, wire::data_header(wire::OFFER, 2, {2, 3}));
  const auto decide = fake::late_call(4, 2, wire::decide(9, {{2, 3}}));
  vx_cons_stop();
  const size_t sent = fake::sent().size();
  offer();
  decide();
  EXPECT_EQ(fake::sent().size(), sent);
  EXPECT_EQ(decided().first, 0u);
}

TEST_P(node, ignores_calls_in_the_wrong_state)
{
  vx_cons_stop();
  vx_cons_cleanup();
  vx_cons_register_data_hooks(0, nullptr, [](const uint8_t *, uint32_t, uint32_t) { FAIL(); });
  vx_cons_register_clmsg_hook(0, [](const uint8_t *, uint32_t, uint32_t) { FAIL(); });
  EXPECT_EQ(vx_cons_start(), -1);
  EXPECT_EQ(configure_call(1, 3), -1);
  EXPECT_EQ(fake::log_lines(), std::vector<std::string>{"Cannot reconfigure cluster when it is active.\n"});
  fake::fail(fake::call::hash_create, 17);  // the register table
  EXPECT_EQ(vx_cons_init(), -1);
  EXPECT_TRUE(fake::hook_channels().empty());
  start_as("MASTER", 1, 1);
  EXPECT_EQ(vx_cons_init(), 0);  // leaves the hooks as they are
  auto call = submit("a");
  EXPECT_EQ(result(call), 0);
  EXPECT_EQ(vx_cons_cluster_supported(), 0);
  fake::config_set("cluster.supported", "1");
  EXPECT_EQ(vx_cons_cluster_enabled(), 1);
  fake::config_set("cluster.node._s_", "-3");
  EXPECT_EQ(vx_cons_cluster_enabled(), 0);
  const uint8_t byte = 1;
  EXPECT_EQ(vx_cons_distribute(&byte, 0, 0), 0);
  EXPECT_EQ(vx_cons_distribute(nullptr, 5, 0), 0);
  EXPECT_EQ(vx_cons_distribute(&byte, 0xfffffff0, 0), -1);  // 16 more wrap to nothing
  EXPECT_EQ(files::read("msg_id"), wire::words({3}));       // the state took one, the refused call none
  vx_cons_stop();
  vx_cons_stop();
  const size_t sent = fake::sent().size();
  EXPECT_EQ(vx_cons_distribute(&byte, 1, 0), -1);
  EXPECT_EQ(vx_cons_distribute(&byte, 0, 0), -1);
  vx_cons_bcast_clmsg(0, &byte, 1);
  EXPECT_EQ(fake::sent().size(), sent);
  EXPECT_EQ(vx_cons_get_node_count(), 1u);
  EXPECT_EQ(vx_cons_get_node_id(), 1u);
  EXPECT_EQ(app.lines(), std::vector<std::string>{"a"});
}

// Lifecycle calls from several threads beside submissions: each returns, and in the end everything is gone.
TEST_P(node, survives_its_lifecycle_in_any_order)
{
  start_as("MASTER", 1, 1);
  const auto seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::atomic<bool> is_over{false};
  std::vector<std::thread> hosts;
  for (uint32_t t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      std::mt19937 random(seed + t);
      for (int i = 0; i < 40; ++i) {
        switch (random() % 7) {
        case 0:
          vx_cons_init();
          break;
        case 1:
        case 2:
          vx_cons_start();
          break;
        case 3:
          vx_cons_stop();
          break;
        case 4:
          configure_call(1, 1);
          break;
        case 5:
          vx_cons_register_data_hooks(0, nullptr, [](const uint8_t *, uint32_t, uint32_t) {});
          break;
        case 6:
          vx_cons_cleanup();
          break;
        }
      }
    });
  }
  std::thread submitter([&] {
    while (!is_over) {
      const uint8_t byte = 7;
      vx_cons_distribute(&byte, 1, 0);
      vx_cons_bcast_clmsg(0, &byte, 1);
      std::this_thread::yield();
    }
  });
  for (auto &host : hosts) {
    host.join();
  }
  vx_cons_cleanup();
  is_over = true;
  submitter.join();
}

// Memory that runs out is an answer, not an end: whatever allocation of a submission fails, the node lives.
TEST_P(node, survives_messages_that_cannot_be_allocated_or_sent)
{
  start_as("MASTER", 1, 1);
  fake::set_repeats(true);
  std::vector<std::string> expected;
  for (const fake::call what : {fake::call::allocate, fake::call::hash_insert}) {
    for (uint32_t nth = 1; nth <= 6; ++nth) {
      fake::fail(what, nth);
      auto call = submit("x");
      const int verdict = result(call);
      EXPECT_TRUE(verdict == 0 || what == fake::call::hash_insert) << nth;
      if (verdict == 0) {
        expected.push_back("x");
      }
    }
  }
  fake::fail(fake::call::allocate, 1, 0);
  fake::fail(fake::call::hash_insert, 1, 0);
  auto call = submit("last");
  EXPECT_EQ(result(call), 0);
  expected.push_back("last");
  EXPECT_EQ(app.lines(), expected);
}

}  // namespace
