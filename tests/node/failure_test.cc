// A disk that fails, a network that is silent, a host that stops and starts at the wrong moment.

#include "node_fixture.h"

namespace
{

const char *const RECORDS[] = {"msg_id", "paxos_decide", "paxos_deliver"};

// The node isolates itself on whatever thread notices, with the locks that this thread holds, and can be brought back.
TEST_P(node, isolates_itself_where_a_save_fails)
{
  const struct {
    const char *what, *state, *file, *pause;
  } cases[] = {{"caller of distribute", "MASTER", "msg_id", nullptr},
               {"propose-thread, new identifier", "MASTER", "msg_id", "OFFER bcast"},  // the caller has its own by then
               {"propose-thread, decision", "MASTER", "paxos_decide", nullptr},
               {"deliver-thread", "MASTER", "paxos_deliver", nullptr},
               {"receive hook, decision", "BACKUP", "paxos_decide", nullptr}};
  size_t isolations = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    end_cluster();
    configure(1, 3);
    others->lead(2);
    if (c.state == std::string("MASTER")) {
      ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
    } else {
      files::set_node_state(c.state);
      ASSERT_EQ(vx_cons_start(), 0);
    }
    if (c.pause != nullptr) {
      fake::pause_at(c.pause);
    } else {
      files::block_saves(c.file);
    }
    auto call = submit("x");
    if (c.pause != nullptr) {
      ASSERT_TRUE(fake::wait_paused());
      files::block_saves(c.file);
      fake::resume();
    }
    EXPECT_EQ(result(call), -1);
    EXPECT_EQ(fake::logged("Isolating from cluster ...\n"), ++isolations);
    expect_stopped();
    ASSERT_TRUE(fake::settle());  // it still votes
    const auto before = files::all();
    fake::inject(4, 2, wire::decide(900, {{2, 9}}));
    ASSERT_TRUE(fake::settle());
    EXPECT_EQ(files::all(), before);
    files::unblock_saves(c.file);
  }
  EXPECT_EQ(vx_cons_start(), 0);
  auto call = submit("back again");
  EXPECT_EQ(result(call), 0);
}

// A node without identifiers that stays active refuses every call of its host, and as a leader it holds up the cluster:
// it never begins another log. Let it wrap, and its messages are taken for old ones.
TEST_P(node, isolates_itself_when_no_identifier_is_left)
{
  for (const uint32_t last : {wire::ALL, wire::ALL - 1}) {  // none for the caller; none for the next state
    SCOPED_TRACE(last);
    end_cluster();
    configure(1, 3);
    wire::log full = payload_log(250, {2, 3}, 3, 10);
    full[100] = {1, last};
    set_decided(300, full, full.back());
    others->adopt(300, full);
    ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
    auto call = submit("x");
    EXPECT_EQ(result(call), -1);
    expect_stopped();
  }
  EXPECT_EQ(fake::logged("msg_id_next(): CRITICAL - no message identifier is left\n"), 2u);
  EXPECT_EQ(fake::logged("Isolating from cluster ...\n"), 2u);
}

// Nobody is left to wake the callers but a thread that runs anyway: until the host's next call they would hang.
TEST_P(node, ends_its_calls_after_an_isolation_without_a_helper)
{
  start_as("BACKUP");
  std::vector<std::future<int>> calls;
  calls.push_back(submit("in the slot"));
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  calls.push_back(submit("behind it"));
  ASSERT_TRUE(fake::wait_for([] { return fake::logged("OFFER bcast") == 2 && fake::queued(5, wire::OFFER).empty(); }));
  others->set_fetches(false);
  calls.push_back(submit("offered"));
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(5, wire::OFFER).size() == 1; }));
  files::block_saves("paxos_decide");
  fake::fail(fake::call::thread, 1);
  fake::inject(4, 2, wire::decide(40, {{2, 7}, {2, 8}}));
  for (auto &call : calls) {
    EXPECT_EQ(result(call), -1);
  }
  EXPECT_TRUE(fake::in_order({"Isolating from cluster ...\n", "paxos_isolate(): Cannot create isolation-thread.\n"}));
  EXPECT_EQ(fake::logged("isolation-thread"), 1u);
  files::unblock_saves("paxos_decide");
  ASSERT_EQ(vx_cons_start(), 0);
  others->set_fetches(true);
  others->lead(2);
  auto call = submit("back again");
  EXPECT_EQ(result(call), 0);
}

// Several threads meet the failure at once, beside the host's own stop, start and cleanup: a thread joined twice, or
// by itself, hangs or crashes.
TEST_P(node, isolates_itself_on_several_threads_at_once)
{
  for (int round = 0; round < 9; ++round) {
    SCOPED_TRACE(round);
    end_cluster();
    start_as("BACKUP");
    others->lead(2);
    others->order({});
    ASSERT_TRUE(fake::wait_for([] { return app.states() == 1; }));
    app.hold();
    others->order({others->submit(3, message("m"))});
    ASSERT_TRUE(fake::wait_for([] { return app.deliveries_begun() == 2; }));
    for (const char *name : RECORDS) {
      files::block_saves(name);
    }
    auto call = submit("x");
    others->order({{3, 77}});
    app.let_go();
    auto host = std::async(std::launch::async, [round] {
      if (round % 3 == 0) {
        vx_cons_stop();
      } else if (round % 3 == 1) {
        vx_cons_start();
      } else {
        vx_cons_cleanup();
      }
      return 0;
    });
    EXPECT_EQ(result(call), -1);
    EXPECT_EQ(result(host), 0);
    EXPECT_TRUE(wait_joined());
    EXPECT_EQ(vx_cons_cluster_active(), 0);
    for (const char *name : RECORDS) {
      files::unblock_saves(name);
    }
  }
}

// A start that overlooks an isolation of its own threads leaves a service that claims to be active and is dead.
TEST_P(node, is_not_active_after_an_isolation_while_it_starts)
{
  configure(1, 3);
  files::block_saves("paxos_decide");
  fake::pause_at("register channel 4");
  auto start = std::async(std::launch::async, vx_cons_start);
  ASSERT_TRUE(fake::wait_paused());
  fake::inject(4, 2, wire::decide(40, {{2, 7}, {2, 8}}));
  ASSERT_TRUE(fake::wait_logged("Isolating from cluster ...\n"));
  ASSERT_TRUE(fake::settle());
  fake::resume();
  EXPECT_EQ(result(start), -1);
  EXPECT_EQ(fake::logged("CONS: PAXOS started\n"), 0u);
  expect_stopped();
}

// Whatever the node waits for, stop ends it in time; the caller's verdict is -1 even if a start follows at once, and
// the next run is not disturbed by what the last one left.
TEST_P(node, stops_in_time_whatever_it_waits_for)
{
  const struct {
    const char *what, *state;
    bool votes, fetches;
    std::function<bool()> is_waiting;
  } cases[] = {
      {"answers to a READ", "MASTER", false, true, [] { return !fake::sent(3, wire::READ_REQ).empty(); }},
      {"answers to a WRITE", "MASTER", false, true,
       [] {
         const auto reads = fake::sent(3, wire::READ_REQ);
         if (!reads.empty()) {
           fake::inject(3, 2, wire::read_ack(1, wire::word_at(reads.back().payload, 8), 0, {}));
         }
         return !fake::sent(3, wire::WRITE_REQ).empty();
       }},
      {"a quorum for the payload", "BACKUP", true, false, [] { return !fake::sent(5, wire::OFFER).empty(); }},
      {"the leader", "BACKUP", true, true, [] { return !fake::sent(4, wire::FORWARD).empty(); }},
      {"a register that cannot be read", "MASTER", true, true, [] { return fake::logged("rb_reg.1 truncated") > 0; }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    others.reset();
    vx_cons_cleanup();
    fake::stop();
    fake::start(GetParam());
    files::clear();
    app.reset();
    configure(1, 3);
    if (std::string(c.what).starts_with("a register")) {
      files::write("rb_reg.1", {1});
    }
    others->set_votes(c.votes);
    others->set_fetches(c.fetches);
    files::set_node_state(c.state);
    ASSERT_EQ(vx_cons_start(), 0);
    std::vector<std::future<int>> calls;
    for (int i = 0; i < 3; ++i) {
      calls.push_back(submit("x"));
    }
    ASSERT_TRUE(fake::wait_for([] { return open_calls() == 3; }));
    ASSERT_TRUE(fake::wait_for(c.is_waiting));
    stop_in_time();
    expect_stopped();
    files::write("rb_reg.1", {});
    ASSERT_EQ(vx_cons_start(), 0);
    for (auto &call : calls) {
      EXPECT_EQ(result(call), -1);
    }
    std::filesystem::remove(files::path("rb_reg.1"));
    others->set_votes(true);
    others->set_fetches(true);
    auto call = submit("after the stop");
    others->lead(2);
    fake::repeat_queued();
    EXPECT_EQ(result(call), 0);
  }
}

// A proposal that cannot be made is tried again by itself, in peace: without the retry the cluster stands still,
// without the pause a full disk costs a core and, in snapshots, the memory.
TEST_P(node, tries_again_once_a_second_what_it_cannot_propose)
{
  const struct {
    const char *what, *obstacle, *line;
  } cases[] = {{"the register cannot be read", "rb_reg.1", "rb_reg.1 truncated"},
               {"the own promise cannot be saved", "rb_reg.1.tmp/", "proposal aborted"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    end_cluster();
    files::clear();
    configure(1, 3);
    const std::string obstacle = files::path(c.obstacle);
    if (obstacle.back() == '/') {
      std::filesystem::create_directory(obstacle);
    } else {
      files::write(c.obstacle, {1});
    }
    ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
    const auto begin = std::chrono::steady_clock::now();
    auto call = submit("x");
    ASSERT_TRUE(fake::wait_logged(c.line, 2));
    EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
    if (obstacle.back() != '/') {
      fake::inject(5, 3, wire::req(3, {1, 3}, 0, wire::ALL));  // the snapshot of the first try
      ASSERT_TRUE(fake::wait_for([] { return !fake::sent(5, wire::MISSING).empty(); }));
    }
    std::filesystem::remove(obstacle);
    EXPECT_EQ(result(call), 0);
  }
}

// Each allocation and each message fails once, wherever it stands: nobody crashes or hangs, and everything goes on with
// the next try. (Every other one with each way to dispatch: some cost a pause of a second.)
TEST_P(node, goes_on_after_an_allocation_or_a_message_that_fails)
{
  const std::tuple<const char *, fake::call> cases[] = {{"MASTER", fake::call::memory},
                                                        {"BACKUP", fake::call::memory},
                                                        {"MASTER", fake::call::enqueue},
                                                        {"BACKUP", fake::call::enqueue}};
  for (const auto &[state, what] : cases) {
    for (uint32_t nth = GetParam() == fake::dispatch::per_channel ? 1 : 2; nth < 100; nth += 2) {
      SCOPED_TRACE(std::string(state) + (what == fake::call::memory ? ", allocation " : ", message ") +
                   std::to_string(nth));
      end_cluster();
      files::clear();
      start_as(state);
      others->lead(std::string(state) == "MASTER" ? 0 : 2);
      fake::set_repeats(true);
      const uint32_t before = fake::calls(what);
      fake::fail(what, nth);
      auto call = submit("x");
      const wire::entry from_other = others->submit(3, message("y"));
      fake::inject(4, 3, wire::forward(from_other));
      result(call);
      auto second = submit("z");
      if (result(second) != 0) {  // the failure may be its own
        second = submit("z");
        EXPECT_EQ(result(second), 0);
      }
      if (fake::calls(what) - before < nth) {
        fake::fail(what, 1, 0);
        break;
      }
    }
  }
}

// Stop takes as long as the hook that is running, not as the queue behind it.
TEST_P(node, delivers_nothing_more_after_a_stop)
{
  start_as("BACKUP");
  others->lead(2);
  others->order({});
  ASSERT_TRUE(fake::wait_for([] { return app.states() == 1; }));
  app.hold();
  wire::log log;
  for (const char *text : {"a", "b", "c"}) {
    log.push_back(others->submit(3, message(text)));
  }
  others->order(log);
  ASSERT_TRUE(fake::wait_for([] { return app.deliveries_begun() == 2; }));
  others->order({others->submit(3, message("d"))});
  ASSERT_TRUE(fake::wait_hook_blocked());  // the hand-over waits for the queue, and stop for the hook
  auto stop = std::async(std::launch::async, [] {
    vx_cons_stop();
    return 0;
  });
  ASSERT_TRUE(fake::wait_for([] { return vx_cons_cluster_active() == 0; }));
  app.let_go();
  EXPECT_EQ(result(stop), 0);
  EXPECT_EQ(app.lines().back(), "a");
  ASSERT_EQ(vx_cons_start(), 0);
  others->announce(2);
  EXPECT_TRUE(app.has({"state of the leader", "a", "b", "c", "d"}));
}

// A start that waits for deliveries keeps the lifecycle lock meanwhile: stop would wait for the whole queue.
TEST_P(node, starts_while_a_long_queue_is_delivered)
{
  configure(1, 3);
  others->lead(2);
  fake::pause_at("register channel 4");
  auto start = std::async(std::launch::async, vx_cons_start);
  ASSERT_TRUE(fake::wait_paused());
  app.hold();
  others->order({others->submit(3, message("a")), others->submit(3, message("b"))});
  ASSERT_TRUE(fake::wait_for([] { return app.deliveries_begun() == 1; }));
  fake::resume();
  EXPECT_EQ(start.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  auto stop = std::async(std::launch::async, [] {
    vx_cons_stop();
    return 0;
  });
  ASSERT_TRUE(fake::wait_for([] { return vx_cons_cluster_active() == 0; }));
  app.let_go();
  EXPECT_EQ(result(stop), 0);
  EXPECT_EQ(result(start), 0);
  EXPECT_EQ(app.lines(), std::vector<std::string>{"state of the leader"});
  ASSERT_EQ(vx_cons_start(), 0);
  others->announce(2);
  EXPECT_TRUE(app.has({"state of the leader", "a", "b"}));
}

// A hook that was running when the channel was closed must not adopt into the next life of the cluster.
TEST_P(node, adopts_nothing_after_a_stop)
{
  start_as("BACKUP");
  fake::pause_at("CONS: PAXOS: DECIDE (sender=2");
  others->adopt(40, {{2, 7}, {2, 8}});
  others->announce(2);
  ASSERT_TRUE(fake::wait_paused());
  auto next_life = std::async(std::launch::async, [] {
    vx_cons_stop();
    return configure_call(1, 3) == 0 ? vx_cons_start() : -1;
  });
  EXPECT_EQ(next_life.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  fake::resume();
  EXPECT_EQ(result(next_life), 0);
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(files::read("paxos_decide"), bytes(1258));
  EXPECT_EQ(files::read("paxos_deliver"), bytes(5));
}

TEST_P(node, adopts_nothing_after_a_stop_that_ends_its_wait)
{
  start_as("MASTER");
  fake::pause_at("proposal commited (batch_id=1");
  auto call = submit("x");
  ASSERT_TRUE(fake::wait_paused());
  fake::inject(4, 2, wire::decide(40, {{2, 7}, {2, 8}}));
  ASSERT_TRUE(fake::wait_hook_blocked());  // until the proposer is idle
  auto stop = std::async(std::launch::async, [] {
    vx_cons_stop();
    return 0;
  });
  EXPECT_EQ(result(call), -1);
  fake::resume();
  EXPECT_EQ(result(stop), 0);
  EXPECT_LE(decided().first, 1u);
}

// The others need this node's vote while its host is stopped; in a new life it must not be one of the old.
TEST_P(node, votes_while_stopped_until_cleanup)
{
  start_as("BACKUP");
  stop_in_time();
  fake::inject(3, 2, wire::reg(wire::READ_REQ, 1, 2));
  ASSERT_TRUE(fake::wait_for([] { return !fake::sent(3, wire::READ_ACK).empty(); }));
  ASSERT_EQ(configure_call(1, 3), 0);
  EXPECT_FALSE(files::exists("rb_reg.1"));
  fake::inject(3, 2, wire::reg(wire::READ_REQ, 1, 2));  // it does not know yet what is decided
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::sent(3, wire::READ_ACK).size(), 1u);
  ASSERT_EQ(vx_cons_start(), 0);
  fake::inject(3, 2, wire::reg(wire::READ_REQ, 1, 2));
  ASSERT_TRUE(fake::wait_for([] { return fake::sent(3, wire::READ_ACK).size() == 2; }));
  vx_cons_cleanup();
  fake::inject(3, 2, wire::reg(wire::READ_REQ, 2, 2));
  ASSERT_TRUE(fake::settle());
  EXPECT_FALSE(files::exists("rb_reg.2"));
}

}  // namespace
