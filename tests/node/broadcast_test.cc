// The ordinary road of a payload: on the leader, on a follower, through a new log and a restart.

#include <sys/ipc.h>
#include <sys/msg.h>

#include <ctime>
#include <set>
#include <thread>

#include "node_fixture.h"

namespace
{

TEST_P(node, orders_alone)
{
  start_as("MASTER", 1, 1);
  auto call = submit("first");
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), std::vector<std::string>{"first"});
  EXPECT_EQ(app.states(), 1);
  const wire::log log = {{1, 3}, {1, 2}};  // the state took the next identifier
  EXPECT_EQ(files::read("paxos_decide"), wire::words({2}) + wire::log_bytes(log));
  EXPECT_EQ(files::read("paxos_deliver"), wire::entry_bytes({1, 2}));
  EXPECT_EQ(files::read("msg_id"), wire::words({3}));
  ASSERT_EQ(fake::queued(4, 0).size(), 1u);
  const auto decide = fake::queued(4, 0)[0];
  EXPECT_EQ(decide.payload, wire::decide(2, log));
  EXPECT_EQ(std::tuple(decide.destination, decide.repeat, decide.interval), std::tuple(fake::MULTICAST, -1, 5u));
  EXPECT_FALSE(files::exists("rb_reg.1") || files::exists("rb_reg.2"));
  EXPECT_TRUE(fake::in_order({"CONS: PAXOS: DISTRIBUTE (id=2)\n", "CONS: PAXOS: RECEIVE (id=2)\n",
                              "CONS: PAXOS: PROPOSE full state (batch_id=1)\n", "DECIDE broadcast (batch_id=1)\n",
                              "CONS: PAXOS: PROPOSE (batch_id=2)\n", "CONS: PAXOS: DECIDE broadcast (batch_id=2)\n",
                              "CONS: PAXOS: DELIVER (id=2/1)\n", "CONS: PAXOS: DELIVER calling hook\n",
                              "CONS: PAXOS: DELIVER hook returned\n"}));
}

// Identifiers that enter the slot out of their order are refused by the leader as old, and their callers hang.
TEST_P(node, orders_concurrent_submissions_with_the_others)
{
  start_as("MASTER");
  std::vector<std::future<int>> calls;
  for (int i = 0; i < 24; ++i) {
    calls.push_back(submit("line " + std::to_string(i)));
  }
  const entry foreign = others->submit(3, message("foreign"));
  fake::inject(4, 3, wire::forward(foreign));
  for (auto &call : calls) {
    EXPECT_EQ(result(call), 0);
  }
  ASSERT_TRUE(fake::wait_for([] { return app.count() == 25; }));
  const auto lines = app.lines();
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 25u);
  unsigned last = 0;
  for (const std::string &line : fake::log_lines()) {
    unsigned id = 0;
    if (std::sscanf(line.c_str(), "CONS: PAXOS: RECEIVE (id=%u)", &id) == 1) {
      EXPECT_GT(id, last);
      last = id;
    }
  }
  ASSERT_TRUE(fake::settle());
  // The peers were given what was decided, and hold every payload that was acknowledged.
  EXPECT_EQ(others->entries(), decided().second);
  for (const entry &e : others->entries()) {
    EXPECT_TRUE(e == others->entries()[0] || others->have(e));
  }
  EXPECT_EQ(others->payload_of(2, foreign), message("foreign"));
}

TEST_P(node, serves_waiting_nodes_in_turn)
{
  start_as("BACKUP");
  others->set_votes(false);
  ASSERT_TRUE(lead());
  fake::inject(4, 2, wire::forward({2, 50}));
  ASSERT_TRUE(fake::wait_logged("PROPOSE full state (batch_id=1)"));
  fake::inject(4, 2, wire::forward({2, 51}));  // one at a time
  fake::inject(4, 1, wire::forward({1, 60}));  // an echo of a call that was given up: nobody would ever free its slot
  fake::inject(4, 3, wire::forward({3, 50}));
  ASSERT_TRUE(fake::wait_logged("CONS: PAXOS: FORWARD (sender=3)\n"));
  EXPECT_EQ(fake::logged("CONS: PAXOS: FORWARD dupe/busy (sender=2)\n"), 1u);
  EXPECT_EQ(fake::logged("CONS: PAXOS: FORWARD dupe/busy (sender=1)\n"), 1u);
  others->set_votes(true);
  fake::repeat_queued();
  ASSERT_TRUE(wait_decided(3));
  fake::inject(4, 2, wire::forward({2, 51}));
  ASSERT_TRUE(wait_decided(4));
  EXPECT_EQ(decided().second, (wire::log{{1, 2}, {2, 50}, {3, 50}, {2, 51}}));
}

TEST_P(node, forwards_to_the_leader_until_delivered)
{
  start_as("BACKUP", 2);
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  const auto forward = fake::queued(4, 1)[0];
  EXPECT_EQ(forward.payload, (bytes{1, 0, 0, 0, 2, 2, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(std::tuple(forward.destination, forward.repeat, forward.interval), std::tuple(fake::MULTICAST, -1, 1u));
  others->lead(3);
  fake::repeat_queued();
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(app.lines().back(), "mine");
  EXPECT_EQ(fake::queued_count(), 0u);
  EXPECT_EQ(decided().second, others->entries());
  EXPECT_TRUE(fake::sent(4, 0).empty());  // a follower announces nothing
  EXPECT_FALSE(files::exists("rb_reg.2"));
}

// A log is full after 250 entries. The snapshot that begins the next must be exactly the old log, or the nodes that
// start from it differ from those that do not.
TEST_P(node, begins_a_new_log_under_load)
{
  configure(1, 3);
  const wire::log log = payload_log(240, {3, 200}, 3, 201);
  set_decided(240, log, log.back());
  others->adopt(240, log);
  files::set_node_state("MASTER");
  ASSERT_EQ(vx_cons_start(), 0);
  std::atomic<int> acknowledged{0};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        auto call = submit(std::to_string(t) + "/" + std::to_string(i));
        acknowledged += result(call) == 0 ? 1 : 0;
      }
    });
  }
  for (auto &host : hosts) {
    host.join();
  }
  EXPECT_EQ(acknowledged, 60);
  const auto lines = app.lines();
  EXPECT_EQ(lines.size(), 60u);
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 60u);
  EXPECT_EQ(app.states(), 1);
  EXPECT_EQ(fake::logged("PROPOSE full state"), 1u);
  EXPECT_EQ(decided().first, 240u + 60 + 1);
  EXPECT_EQ(decided().second.size(), 51u);
}

// A slow host holds up the log instead of losing part of it: no new log before the old one is delivered.
TEST_P(node, begins_no_log_before_the_old_one_is_delivered)
{
  configure(1, 3);
  wire::log log = payload_log(249, {3, 200}, 3, 201);
  const entry last = {2, 400};
  log.push_back(last);
  set_decided(250, log, log[248]);
  others->adopt(250, log);
  others->hold_payload(2, last, message("the last of the old log"));
  others->set_serves(false);
  files::set_node_state("MASTER");
  ASSERT_EQ(vx_cons_start(), 0);
  auto call = submit("the first of the new log");
  ASSERT_TRUE(fake::wait_logged("RECEIVE (id=2)"));
  ASSERT_TRUE(fake::wait_logged("REQ bcast (id=400/2", 2));  // a second later nothing has begun
  EXPECT_EQ(fake::logged("PROPOSE"), 0u);
  app.hold();
  others->set_serves(true);
  ASSERT_TRUE(fake::wait_for([] { return app.deliveries_begun() == 1; }));
  EXPECT_EQ(fake::logged("PROPOSE"), 0u);
  app.let_go();
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"the last of the old log", "the first of the new log"}));
  EXPECT_EQ(decided(), std::pair(252u, wire::log{{1, 3}, {1, 2}}));
}

// Nodes that begin a new log drop the payloads of the old one. A node that hears only of that has lost nothing: it
// waits for the decision that cures it. And whoever cannot serve it tells it.
TEST_P(node, does_not_skip_what_a_newer_log_has_dropped)
{
  configure(1, 3);
  const entry dropped = {3, 9};
  set_decided(5, {{2, 3}, dropped}, {2, 3});
  ASSERT_EQ(vx_cons_start(), 0);
  // Both others answer MISSING each time, and what they know decided is lost on its way.
  ASSERT_TRUE(fake::wait_for([] { return fake::sent(5, wire::REQ).size() == 4; }));
  const entry state = {2, 50};
  others->hold_payload(2, state, wire::state_payload("all of it"));
  others->adopt(10, {state});
  others->announce(2);
  EXPECT_TRUE(app.has({"all of it"}));
  EXPECT_EQ(fake::logged("data lost"), 0u);

  fake::inject(5, 3, wire::req(3, dropped, 0, wire::ALL));
  EXPECT_TRUE(fake::wait_logged("CONS: PAXOS: DECIDE(update) send (batch_id=10, receiver=3)\n"));
}

TEST_P(node, resumes_after_a_restart)
{
  start_as("MASTER");
  auto first = submit("a");
  ASSERT_EQ(result(first), 0);
  stop_in_time();
  ASSERT_EQ(vx_cons_start(), 0);
  auto second = submit("b");
  ASSERT_EQ(result(second), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"a", "b"}));
  vx_cons_cleanup();  // all payloads are gone, as after a crash
  init();
  ASSERT_EQ(vx_cons_start(), 0);
  auto third = submit("c");
  ASSERT_EQ(result(third), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(decided().second, (wire::log{{1, 3}, {1, 2}, {1, 4}, {1, 5}}));
}

TEST_P(node, hands_each_record_to_the_hook_of_its_type)
{
  static std::vector<std::string> seen;
  seen.clear();
  start_as("BACKUP");
  vx_cons_register_data_hooks(2, nullptr, [](const uint8_t *data, uint32_t length, uint32_t full_state) {
    seen.push_back(std::string(data, data + length) + "/" + std::to_string(full_state));
  });
  vx_cons_register_data_hooks(4, nullptr, [](const uint8_t *, uint32_t, uint32_t) { FAIL(); });
  vx_cons_register_data_hooks(UINT32_MAX, nullptr, [](const uint8_t *, uint32_t, uint32_t) { FAIL(); });
  others->lead(2);
  others->order({});
  // 20 bytes of records of which the first claims 16: one byte more than there are.
  const bytes corrupted = wire::words({0, 20, 2, 16}) + bytes(12);
  const bytes in_the_middle = wire::payload(0, {{2, wire::text("kept")}}) + wire::words({0, wire::ALL});
  bytes fixed = in_the_middle;
  fixed[4] = static_cast<uint8_t>(fixed[4] + 8);
  wire::log log;
  for (const bytes &payload : {wire::payload(0, {{4, {1}}, {2, wire::text("two")}, {7, {}}, {1, {1}}, {2, {}}}),
                               corrupted, fixed, wire::payload(0, {}), message("end")}) {
    log.push_back(others->submit(3, payload));
  }
  others->order(log);
  ASSERT_TRUE(app.has({"state of the leader", "end"}));
  EXPECT_EQ(seen, (std::vector<std::string>{"/1", "two/0", "/0", "kept/0"}));
  EXPECT_EQ(fake::logged("deliver(): corrupted message set received\n"), 2u);
  EXPECT_TRUE(fake::wait_for([&] { return files::read("paxos_deliver") == wire::entry_bytes(log.back()); }));
}

struct sign_of_life {
  long mtype;
  unsigned char mtext[16];
};

// Takes one from the queue to keepalived; its size, or -1 if there is none.
ssize_t take_sign(sign_of_life &sign)
{
  return msgrcv(msgget(0x64387148, IPC_CREAT | 0600), &sign, sizeof sign.mtext, 0, IPC_NOWAIT);
}

// Waits for so many that come from now on.
bool wait_signs(size_t count)
{
  sign_of_life sign;
  while (take_sign(sign) >= 0) {
  }
  return fake::wait_for([&, seen = size_t{0}]() mutable { return (seen += take_sign(sign) >= 0 ? 1 : 0) >= count; });
}

TEST_P(node, follows_the_node_state_file)
{
  configure(1, 3);
  set_decided(4, {{2, 9}, {2, 10}}, {2, 10});
  ASSERT_EQ(vx_cons_start(), 0);
  const struct {
    const char *text;
    bool is_leader;
  } cases[] = {{"MASTER\n", true}, {"BACKUP\n", false}, {"MASTERX", true}, {"", false},
               {"MASTER", true},   {"FAULT\n", false},  {"MASTE", false},  {" MASTER", false}};
  size_t entered = 0;
  size_t broadcasts = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    files::set_node_state(c.text);
    entered += c.is_leader ? 1 : 0;
    broadcasts += c.is_leader ? 1 : 0;
    ASSERT_TRUE(fake::wait_for([&] { return fake::queued(4, 0).size() == (c.is_leader ? 1u : 0u); }));
    EXPECT_EQ(fake::logged("CONS: PAXOS: Entering Leader Mode\n"), entered);
    EXPECT_EQ(fake::logged("CONS: PAXOS: DECIDE broadcast (batch_id=4)\n"), broadcasts);
  }
  EXPECT_EQ(fake::logged("CONS: PAXOS: Leaving Leader Mode\n"), 3u);

  sign_of_life last;
  ssize_t size = 0;
  for (ssize_t n; (n = take_sign(last)) >= 0;) {
    size = n;
  }
  EXPECT_EQ(size, 8);
  EXPECT_EQ(last.mtype, 1);
  const bytes sent(last.mtext, last.mtext + 8);
  EXPECT_NEAR(wire::word_at(sent, 0), static_cast<double>(time(nullptr)), 5);
  EXPECT_EQ(wire::word_at(sent, 4), 0x0bad5eedu);
}

// No file is no reading: a pass without one, taken for one, made the next compare with the reading before the last.
TEST_P(node, follows_a_node_state_file_that_was_missing_between_two_readings)
{
  start_as("BACKUP");
  ASSERT_TRUE(lead());
  ASSERT_TRUE(wait_signs(1));
  std::filesystem::remove("/run/node_state");
  ASSERT_TRUE(wait_signs(1));
  EXPECT_EQ(fake::logged("Leaving Leader Mode"), 0u);
  EXPECT_TRUE(step_down());
}

// keepalived takes a node without a sign of life for dead, and a snapshot or a save may take seconds.
TEST_P(node, gives_signs_of_life_while_the_protocol_is_busy)
{
  start_as("MASTER");
  app.hold_snapshots();
  auto call = submit("begins a log");
  ASSERT_TRUE(fake::wait_for([] { return app.snapshots_begun() == 1; }));
  EXPECT_TRUE(wait_signs(3));
  files::set_node_state("BACKUP");
  EXPECT_TRUE(wait_signs(2));
  app.let_go();
  EXPECT_TRUE(fake::wait_logged("Leaving Leader Mode"));
}

TEST_P(node, carries_cluster_messages)
{
  static std::atomic<int> heard;
  heard = 0;
  start_as("BACKUP");
  vx_cons_register_clmsg_hook(0, [](const uint8_t *, uint32_t length, uint32_t) { heard += static_cast<int>(length); });
  const uint8_t data[] = {1, 2, 3};
  vx_cons_bcast_clmsg(0, data, 3);
  ASSERT_TRUE(fake::wait_for([] { return heard == 3; }));
  vx_cons_stop();
  fake::inject(6, 2, wire::clmsg(0, 2, {1, 2}));
  ASSERT_TRUE(fake::wait_for([] { return heard == 5; }));
}

}  // namespace
