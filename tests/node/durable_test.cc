// Durable payloads: nothing that was acknowledged depends on a process that lives.

#include "node_fixture.h"

namespace
{

class durable_node : public node
{
protected:
  void configure_durable(uint32_t own = 1)
  {
    configure(own, 3);
    fake::config_set("cluster.durable_payloads", "1");
  }
  static bool start_leading()
  {
    return lead([] { return vx_cons_start() == 0; });
  }
  static std::vector<fake::sent_message> state_offers() { return fake::queued(5, 5); }
};

// A state that only its leader holds dies with it, and takes with it what the log before had: a lagging node goes on
// without. While it spreads, the leader must be able to leave, and come back with the same state.
TEST_P(durable_node, spreads_a_state_before_it_is_proposed)
{
  configure_durable();
  others->set_fetches(false);
  const entry foreign = others->submit(3, message("foreign"), false);
  ASSERT_TRUE(start_leading());
  fake::inject(4, 3, wire::forward(foreign));
  ASSERT_TRUE(fake::wait_for([] { return state_offers().size() == 1; }));
  EXPECT_EQ(state_offers()[0].payload, wire::data_header(wire::OFFER, 1, {1, 2}));
  EXPECT_TRUE(files::exists("payloads/1.2"));
  ASSERT_TRUE(step_down());
  ASSERT_TRUE(fake::wait_for([] { return state_offers().empty(); }));
  ASSERT_TRUE(lead());
  fake::inject(4, 3, wire::forward(foreign));
  ASSERT_TRUE(fake::wait_for([] { return state_offers().size() == 1; }));
  EXPECT_EQ(state_offers()[0].payload, wire::data_header(wire::OFFER, 1, {1, 2}));
  vx_cons_cleanup();  // and after a crash, or each one would leave a state on every disk
  init();
  ASSERT_TRUE(start_leading());
  fake::inject(4, 3, wire::forward(foreign));
  ASSERT_TRUE(fake::wait_for([] { return state_offers().size() == 1; }));
  EXPECT_EQ(state_offers()[0].payload, wire::data_header(wire::OFFER, 1, {1, 2}));
  EXPECT_EQ(fake::logged("PROPOSE"), 0u);
  others->set_fetches(true);
  fake::repeat_queued();
  EXPECT_TRUE(app.has({"foreign"}));
  EXPECT_TRUE(others->have({1, 2}));
  EXPECT_EQ(decided(), std::pair(2u, wire::log{{1, 2}, foreign}));
  EXPECT_TRUE(state_offers().empty());
}

// A decision from elsewhere must not wait for followers that store nothing; nor must stop.
TEST_P(durable_node, a_spreading_state_gives_way)
{
  configure_durable();
  others->set_fetches(false);
  ASSERT_TRUE(start_leading());
  fake::inject(4, 3, wire::forward({3, 9}));
  ASSERT_TRUE(fake::wait_for([] { return state_offers().size() == 1; }));
  const entry state = {2, 50};
  others->hold_payload(2, state, wire::durable_state_payload("all of it", 7, {3, 9}));
  others->adopt(7, {state});
  others->announce(2);
  EXPECT_TRUE(app.has({"all of it"}));
  // What was overtaken is no use to anybody: its number is decided.
  EXPECT_TRUE(fake::wait_for([] { return !files::exists("payloads/1.2"); }));
  others->set_fetches(true);
  fake::inject(4, 3, wire::forward({3, 9}));  // the state says that it was decided before
  for (const char *text : {"a", "b"}) {
    auto call = submit(text);
    ASSERT_EQ(result(call), 0);
  }
  EXPECT_EQ(decided(), std::pair(9u, wire::log{state, {1, 3}, {1, 4}}));
  stop_in_time();
  EXPECT_EQ(vx_cons_start(), 0);
}

// Two leaders' states for one number make two logs of one number: a payload that only one of them can name is lost.
TEST_P(durable_node, begins_the_log_with_the_state_that_is_read_back)
{
  configure_durable();
  const entry state = {2, 77};
  others->hold_payload(2, state, wire::durable_state_payload("theirs", 1, {3, 0}));
  others->set_register(2, 1, 2, 2, wire::entry_bytes(state));
  others->set_register(3, 1, 2, 2, wire::entry_bytes(state));
  ASSERT_TRUE(start_leading());
  auto call = submit("mine");
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(decided(), std::pair(2u, wire::log{state, {1, 2}}));
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"theirs", "mine"}));
}

// A leader that forgot what the logs before had decided, by a restart or a jump, would order it again.
TEST_P(durable_node, hands_nothing_over_before_it_knows_what_its_state_has_seen)
{
  configure_durable();
  const entry state = {2, 77};
  const entry before = {3, 60};
  set_decided(251, {state}, state);  // delivered, and its file is gone
  others->adopt(251, {state});
  others->set_serves(false);
  ASSERT_TRUE(start_leading());
  fake::inject(4, 3, wire::forward(before));
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_for([] { return fake::sent(5, wire::REQ).size() >= 2; }));
  EXPECT_EQ(fake::logged("PROPOSE"), 0u);
  others->hold_payload(2, state, wire::durable_state_payload("", 251, before));
  others->set_serves(true);
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(decided(), std::pair(252u, wire::log{state, {1, 2}}));
  fake::inject(4, 3, wire::forward(before));
  EXPECT_TRUE(fake::wait_logged("FORWARD dupe/busy (sender=3)"));
}

// All nodes crash: nobody has the payload in memory. What was decided and not delivered here comes from the files.
TEST_P(durable_node, delivers_from_its_files_after_a_crash_of_all)
{
  configure_durable();
  ASSERT_TRUE(start_leading());
  for (const char *text : {"a", "b"}) {
    auto call = submit(text);
    ASSERT_EQ(result(call), 0);
  }
  const auto [number, log] = decided();
  ASSERT_EQ(log.size(), 3u);
  vx_cons_cleanup();
  for (const entry &e : log) {
    others->forget_payload(e);
  }
  files::write("paxos_deliver", wire::entry_bytes(log[1]));
  app.reset();
  init();
  ASSERT_TRUE(start_leading());
  EXPECT_TRUE(app.has({"b"}));
  auto call = submit("c");
  EXPECT_EQ(result(call), 0);
  EXPECT_EQ(fake::logged("data lost"), 0u);
}

// What cannot be saved is not offered, and the node goes on: nothing was promised.
TEST_P(durable_node, refuses_what_it_cannot_save)
{
  configure_durable();
  ASSERT_TRUE(start_leading());
  auto first = submit("first");
  ASSERT_EQ(result(first), 0);
  files::block_saves("payloads/1.4");
  const size_t offers = fake::sent(5, wire::OFFER).size();
  auto refused = submit("refused");
  EXPECT_EQ(result(refused), -1);
  EXPECT_EQ(fake::sent(5, wire::OFFER).size(), offers);
  auto next = submit("next");
  EXPECT_EQ(result(next), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"first", "next"}));
}

// A reset that ends in the middle must not leave the last decision of the old life beside records of the new one.
TEST_P(durable_node, does_not_start_after_half_a_reset)
{
  configure_durable();
  ASSERT_TRUE(start_leading());
  auto call = submit("old");
  ASSERT_EQ(result(call), 0);
  vx_cons_stop();
  EXPECT_TRUE(files::exists("payloads/1.2"));
  files::block_saves("msg_id");
  EXPECT_EQ(configure_call(1, 3), -1);
  EXPECT_EQ(vx_cons_start(), -1);
  EXPECT_FALSE(files::exists("payloads"));
  files::unblock_saves("msg_id");
  EXPECT_EQ(configure_call(1, 3), 0);
  EXPECT_EQ(vx_cons_start(), 0);
}

INSTANTIATE_TEST_SUITE_P(dispatchers, durable_node,
                         ::testing::Values(fake::dispatch::per_channel, fake::dispatch::one_for_all),
                         [](const auto &at) { return at.param == fake::dispatch::per_channel ? "each" : "one"; });

}  // namespace
