// Decisions that come from elsewhere, leaders that come and go, and what each caller is told.

#include <algorithm>

#include "node_fixture.h"

namespace
{

size_t times_in(const wire::log &log, entry e)
{
  return static_cast<size_t>(std::count(log.begin(), log.end(), e));
}

// A node that has decided 9 knows that 9 is taken, also after a restart: its vote, given again, would let a leader that
// lags decide another 9.
TEST_P(node, defends_its_last_decision_after_a_restart)
{
  configure(1, 3);
  set_decided(9, {{2, 3}, {3, 4}}, {3, 4});
  ASSERT_EQ(vx_cons_start(), 0);
  fake::inject(3, 2, wire::reg(wire::READ_REQ, 9, 50));
  fake::inject(3, 2, wire::write_req(8, 50, wire::entry_bytes({2, 77})));
  fake::inject(4, 3, wire::decide(7, {{2, 3}}));
  fake::inject(4, 3, wire::decide(9, {{2, 99}}));
  ASSERT_TRUE(fake::settle());
  EXPECT_TRUE(fake::sent(3, wire::READ_ACK).empty() && fake::sent(3, wire::WRITE_ACK).empty());
  ASSERT_EQ(fake::sent(4, wire::DECIDE).size(), 1u);
  const auto update = fake::sent(4, wire::DECIDE)[0];
  EXPECT_EQ(update.payload, wire::decide(9, {{2, 3}, {3, 4}}));
  EXPECT_EQ(std::tuple(update.key, update.destination, update.repeat, update.interval),
            std::tuple(0u, fake::address_of(3), 0, 0u));
  EXPECT_EQ(fake::logged("CONS: PAXOS: DECIDE(update) send (batch_id=9, receiver=3)\n"), 1u);
  fake::inject(3, 2, wire::reg(wire::READ_REQ, 10, 2));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::sent(3, wire::READ_ACK).size(), 1u);

  // A leader without any memory asks for register 1 and hears nothing else: it is told, not more than once a second.
  for (int i = 0; i < 3; ++i) {
    fake::inject(3, 2, wire::reg(wire::READ_REQ, 1, 2));
  }
  ASSERT_TRUE(fake::settle());
  ASSERT_EQ(fake::sent(4, wire::DECIDE).size(), 2u);
  EXPECT_EQ(fake::sent(4, wire::DECIDE)[1].destination, fake::address_of(2));
}

// A new leader that lags proposes a number that the others have retired, and gets no answer. What it hears of the newer
// decision must end that wait; waiting for the proposer to be idle by itself never ends.
TEST_P(node, catches_up_as_a_leader_that_lags)
{
  configure(1, 3);
  const wire::log log = {{2, 3}, {2, 4}, {3, 5}, {2, 5}};
  set_decided(2, {log[0], log[1]}, log[1]);
  others->hold_payload(2, log[2], message("p"));
  others->hold_payload(2, log[3], message("q"));
  ASSERT_EQ(vx_cons_start(), 0);
  others->adopt(4, log);
  fake::hold(4);
  ASSERT_TRUE(lead());
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_for([] { return !fake::sent(3, wire::READ_REQ).empty(); }));
  fake::release(4);
  others->announce(2);
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"p", "q", "mine"}));
  EXPECT_EQ(decided(), std::pair(5u, wire::log{log[0], log[1], log[2], log[3], {1, 2}}));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(others->entries(), decided().second);
}

// While the receive hook waits for the proposer to be idle, the proposer decides the very number: the late decision
// must not replace it, on disk or in memory.
TEST_P(node, keeps_the_own_decision_when_an_older_one_arrives_late)
{
  configure(1, 3);
  set_decided(5, {{2, 3}, {2, 4}}, {2, 4});
  others->adopt(5, {{2, 3}, {2, 4}});
  files::set_node_state("MASTER");
  ASSERT_EQ(vx_cons_start(), 0);
  fake::pause_at("proposal commited (batch_id=6");
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_paused());
  fake::inject(4, 3, wire::decide(6, {{2, 3}, {2, 4}, {3, 99}}));
  ASSERT_TRUE(fake::wait_hook_blocked());
  fake::resume();
  EXPECT_EQ(result(call), 0);
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(decided(), std::pair(6u, wire::log{{2, 3}, {2, 4}, {1, 2}}));
  auto next = submit("next");
  EXPECT_EQ(result(next), 0);  // the proposer was let go
}

// An answer that reads back another leader's value decides that value, not ours; and it is decided once, also when its
// owner goes on forwarding it.
TEST_P(node, orders_a_value_read_back_once)
{
  configure(1, 3);
  set_decided(5, {{2, 3}, {2, 4}}, {2, 4});
  others->adopt(5, {{2, 3}, {2, 4}});
  const entry foreign = others->submit(3, message("foreign"));
  others->set_register(2, 6, 2, 2, wire::entry_bytes(foreign));
  others->set_register(3, 6, 2, 2, wire::entry_bytes(foreign));
  ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
  fake::hold(3);
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_logged("PROPOSE (batch_id=6)"));
  fake::inject(4, 3, wire::forward(foreign));
  ASSERT_TRUE(fake::wait_logged("CONS: PAXOS: FORWARD (sender=3)\n"));
  fake::release(3);
  ASSERT_EQ(result(call), 0);
  fake::inject(4, 3, wire::forward(foreign));
  EXPECT_TRUE(fake::wait_logged("FORWARD dupe/busy (sender=3)"));
  auto next = submit("next");
  ASSERT_EQ(result(next), 0);
  EXPECT_EQ(decided().second, (wire::log{{2, 3}, {2, 4}, foreign, {1, 2}, {1, 3}}));
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"foreign", "mine", "next"}));
}

// As leader a node that lost its disk completes a message of its own earlier life. Its identifiers go on behind that
// one: no call with a lower one would be ordered.
TEST_P(node, goes_on_behind_an_own_message_of_an_earlier_life)
{
  configure(1, 3);
  set_decided(5, {{2, 3}, {2, 4}}, {2, 4});
  others->adopt(5, {{2, 3}, {2, 4}});
  const entry earlier = {1, 90};
  others->hold_payload(2, earlier, message("earlier"));
  others->set_register(2, 6, 2, 2, wire::entry_bytes(earlier));
  others->set_register(3, 6, 2, 2, wire::entry_bytes(earlier));
  ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
  auto overtaken = submit("overtaken");
  EXPECT_EQ(result(overtaken), -1);
  auto next = submit("next");
  EXPECT_EQ(result(next), 0);
  EXPECT_EQ(decided().second, (wire::log{{2, 3}, {2, 4}, earlier, {1, 91}}));
}

// The payloads of the last two messages of a full log are gone: what its leader could not deliver is not in the
// snapshot, so the new log names it again, and the messages after it come through.
TEST_P(node, carries_a_lost_tail_into_the_new_log)
{
  configure(1, 3);
  const wire::log full = payload_log(250, {2, 3}, 3, 10);
  set_decided(300, full, full[247]);
  others->adopt(300, full);
  ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
  auto call = submit("mine");
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), std::vector<std::string>{"mine"});
  EXPECT_GE(fake::logged("data lost - skipped"), 2u);
  const auto [number, log] = decided();
  EXPECT_EQ(number, 302u);
  ASSERT_EQ(log.size(), 4u);
  EXPECT_EQ(log[0].first, 1);
  EXPECT_EQ((wire::log{log[1], log[2]}), (wire::log{full[248], full[249]}));
  fake::inject(5, 3, wire::req(3, full[248], 0, wire::ALL));  // may skip it, too, once it knows that nothing is newer
  EXPECT_TRUE(fake::wait_logged("CONS: PAXOS: DECIDE(update) send (batch_id=302, receiver=3)\n"));
  EXPECT_EQ(log[3].first, 1);
}

// What a log names that this node has loaded or adopted is never proposed again: not the waiting message of another
// node, not one that is forwarded late, not the own.
TEST_P(node, orders_nothing_that_stands_in_an_adopted_log)
{
  configure(1, 3);
  const entry loaded = {3, 4};
  const entry adopted = {2, 8};
  set_decided(5, {{2, 3}, loaded}, loaded);
  others->adopt(5, {{2, 3}, loaded});
  others->set_votes(false);
  others->hold_payload(2, adopted, message("adopted"));
  ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
  fake::inject(4, 3, wire::forward(loaded));
  fake::inject(4, 2, wire::forward(adopted));
  ASSERT_TRUE(fake::wait_logged("CONS: PAXOS: PROPOSE (batch_id=6)"));
  EXPECT_EQ(fake::logged("CONS: PAXOS: FORWARD dupe/busy (sender=3)"), 1u);
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_logged("RECEIVE (id=2)"));
  const wire::log log = {{2, 3}, loaded, adopted, {1, 2}};
  others->adopt(7, log);  // another leader has ordered both
  others->announce(2);
  ASSERT_EQ(result(call), 0);
  others->set_votes(true);
  fake::repeat_queued();
  fake::inject(4, 2, wire::forward(adopted));
  auto next = submit("next");
  ASSERT_EQ(result(next), 0);
  EXPECT_EQ(times_in(decided().second, adopted), 1u);
  EXPECT_EQ(times_in(decided().second, {1, 2}), 1u);
  EXPECT_EQ(decided().second.size(), 5u);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"adopted", "mine", "next"}));
}

// Else it would be repeated until the message is decided, and offered to another leader too.
TEST_P(node, withdraws_its_own_forward_when_it_begins_to_lead)
{
  start_as("BACKUP");
  others->set_votes(false);
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_for([] { return !fake::queued(4, 1).empty(); }));
  ASSERT_TRUE(lead());
  EXPECT_TRUE(fake::wait_for([] { return fake::queued(4, 1).empty(); }));
  others->set_votes(true);
  fake::repeat_queued();
  EXPECT_EQ(result(call), 0);
}

// A state takes its identifier from the same counter as the messages: that a log names it says nothing about the
// message that waits, whose identifier is lower.
TEST_P(node, goes_on_waiting_behind_its_own_state)
{
  start_as("MASTER");
  fake::pause_at("PROPOSE (batch_id=2)");
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_paused());
  others->set_votes(false);
  fake::resume();
  const entry foreign = others->submit(2, message("foreign"));
  others->adopt(2, {{1, 3}, foreign});
  others->announce(2);
  ASSERT_TRUE(wait_decided(2));
  others->set_votes(true);
  fake::repeat_queued();
  EXPECT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"foreign", "mine"}));
}

// The own message is decided but not delivered yet when this node becomes leader, and back: it is neither proposed nor
// forwarded again, and its caller is released by the delivery.
TEST_P(node, waits_for_the_delivery_of_an_own_decided_message)
{
  start_as("BACKUP");
  others->lead(2);
  others->order({});
  ASSERT_TRUE(fake::wait_for([] { return app.states() == 1; }));
  others->set_serves(false);
  const entry before = others->submit(3, message("before"), false);
  others->hold_payload(2, before, message("before"));
  others->order({before});
  auto call = submit("mine");
  ASSERT_TRUE(wait_decided(3));                                            // the state, the message before, ours
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).empty(); }));  // nothing is left to forward
  others->lead(0);
  ASSERT_TRUE(lead());
  const size_t forwards = fake::sent(4, wire::FORWARD).size();
  ASSERT_TRUE(step_down());
  ASSERT_TRUE(lead());
  fake::settle();
  EXPECT_EQ(fake::logged("PROPOSE"), 0u);
  EXPECT_EQ(fake::sent(4, wire::FORWARD).size(), forwards);
  others->set_serves(true);
  ASSERT_EQ(result(call), 0);
  auto next = submit("next");
  ASSERT_EQ(result(next), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"state of the leader", "before", "mine", "next"}));
  EXPECT_EQ(times_in(decided().second, {1, 2}), 1u);
}

// Leaving leader mode ends the proposal that waits for the others; the own message goes to the new leader.
TEST_P(node, hands_its_message_to_the_next_leader)
{
  start_as("MASTER");
  others->set_votes(false);
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_for([] { return !fake::sent(3, wire::READ_REQ).empty(); }));
  ASSERT_TRUE(step_down());
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  EXPECT_EQ(fake::queued_count(), 1u);
  EXPECT_EQ(fake::logged("READ cancelled"), 1u);
  others->lead(2);
  fake::repeat_queued();
  EXPECT_EQ(result(call), 0);
}

// What a follower does would withdraw the DECIDE that this node has just begun to announce as a leader.
TEST_P(node, goes_on_announcing_when_it_leads_again_at_once)
{
  configure(1, 3);
  set_decided(4, {{2, 9}, {2, 10}}, {2, 10});
  ASSERT_EQ(vx_cons_start(), 0);
  ASSERT_TRUE(lead());
  others->set_votes(false);
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_for([] { return !fake::sent(3, wire::READ_REQ).empty(); }));
  fake::pause_at("proposal cancelled");
  ASSERT_TRUE(step_down());
  ASSERT_TRUE(fake::wait_paused());  // the launch-thread, which is leaving, waits for the proposer
  ASSERT_TRUE(lead());
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 0).size() == 1; }));
  const size_t proposals = fake::logged("CONSENSOUS: propose");
  fake::resume();
  ASSERT_TRUE(fake::wait_for([&] { return fake::logged("CONSENSOUS: propose") > proposals; }));
  EXPECT_EQ(fake::queued(4, 0).size(), 1u);
  others->set_votes(true);
  fake::repeat_queued();
  EXPECT_EQ(result(call), 0);
}

// A snapshot has swallowed the caller's message, which this node saw decided and never gets: the call ends with it, 0
// when the snapshot is delivered, -1 when that is lost too. Without that the node's callers hang for ever.
TEST_P(node, ends_a_call_whose_message_a_snapshot_has_swallowed)
{
  for (const bool is_state_lost : {false, true}) {
    SCOPED_TRACE(is_state_lost);
    end_cluster();
    start_as("BACKUP");
    others->lead(2);
    others->order({});
    ASSERT_TRUE(fake::wait_for([] { return app.states() == 1; }));
    others->set_serves(false);
    others->order({others->submit(3, message("unreachable"), false)});
    auto call = submit("mine");
    ASSERT_TRUE(wait_decided(3));
    others->set_state("state of the leader\nunreachable\nmine\n");
    app.reset();  // what this node holds is allowed to differ from the snapshot
    others->order({});
    ASSERT_TRUE(wait_decided(4));
    const wire::entry state = others->entries()[0];
    if (is_state_lost) {
      others->forget_payload(state);
    }
    // Before it asks for the snapshot, it may still ask for the message behind which its own one waits.
    const std::string asks = "REQ bcast (id=" + std::to_string(state.second) + "/" + std::to_string(state.first);
    ASSERT_TRUE(fake::wait_for([&] { return fake::logged(asks) > 0; }));
    others->set_serves(true);
    EXPECT_EQ(result(call), is_state_lost ? -1 : 0);
    EXPECT_EQ(app.states(), is_state_lost ? 0 : 1);
    auto next = submit("next");
    EXPECT_EQ(result(next), 0);
    EXPECT_EQ(app.lines().back(), "next");
    EXPECT_EQ(fake::queued_count(), 0u);
  }
}

// Decisions were missed that no log names any more: a waiting message may be among them. To order it again could
// deliver it twice; its caller is told that nothing is known.
TEST_P(node, gives_up_a_message_that_may_have_been_decided_unseen)
{
  start_as("BACKUP");
  others->lead(3);
  others->order({});
  ASSERT_TRUE(fake::wait_for([] { return app.states() == 1; }));
  others->lead(0);
  auto doubtful = submit("doubtful");
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  app.reset();
  const entry state = others->submit(3, wire::state_payload("s\n"), false);
  others->adopt(400, {state});  // 1 + 1 < 400
  others->announce(3);
  EXPECT_EQ(result(doubtful), -1);
  EXPECT_TRUE(fake::wait_for([] { return fake::queued(4, 1).empty(); }));
  ASSERT_TRUE(app.has({"s"}));

  // The next log follows without a gap: nothing is in doubt, the message goes on waiting.
  auto waiting = submit("waiting");
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  app.reset();
  const entry next_state = others->submit(3, wire::state_payload("t\n"), false);
  others->adopt(401, {next_state});
  others->announce(3);
  ASSERT_TRUE(app.has({"t"}));
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  others->lead(3);
  fake::repeat_queued();
  EXPECT_EQ(result(waiting), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"t", "waiting"}));
}

// The same for what others have forwarded: their owners forward it again, or give it up.
TEST_P(node, forgets_what_others_wait_for_when_decisions_were_missed)
{
  start_as("MASTER");
  others->set_votes(false);
  const entry doubtful = others->submit(3, message("doubtful"));
  fake::inject(4, 3, wire::forward(doubtful));
  ASSERT_TRUE(fake::wait_for([] { return !fake::sent(3, wire::READ_REQ).empty(); }));
  const entry state = others->submit(2, wire::state_payload("s\n"), false);
  app.reset();
  others->adopt(400, {state});
  others->announce(2);
  ASSERT_TRUE(app.has({"s"}));
  EXPECT_TRUE(fake::wait_for([] {  // until it has released the state that it proposed in vain
    fake::inject(5, 3, wire::req(3, {1, 2}, 0, wire::ALL));
    return fake::settle() && fake::logged("MISSING bcast (id=2/1)") > 0;
  }));
  others->set_votes(true);
  auto call = submit("mine");
  EXPECT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"s", "mine"}));
  fake::inject(4, 3, wire::forward(doubtful));
  EXPECT_TRUE(app.has({"s", "mine", "doubtful"}));
}

// A node that lost its disk meets its own old identifiers in the log: reusing them delivers old bytes as new.
TEST_P(node, never_reuses_an_identifier_that_a_log_names)
{
  start_as("BACKUP");
  others->lead(2);
  others->hold_payload(2, {1, 70}, message("of the node's first life"));
  others->order({{1, 70}});
  ASSERT_TRUE(app.has({"state of the leader", "of the node's first life"}));
  auto call = submit("of its second");
  ASSERT_EQ(result(call), 0);
  EXPECT_EQ(decided().second.back(), entry(1, 71));
  EXPECT_EQ(app.lines().back(), "of its second");
}

// It has submitted before it met them: those calls could only be refused as old ones, for ever.
TEST_P(node, ends_calls_whose_identifiers_a_log_shows_to_be_old)
{
  start_as("BACKUP");
  auto waiting = submit("in the slot");
  ASSERT_TRUE(fake::wait_for([] { return fake::queued(4, 1).size() == 1; }));
  auto behind = submit("behind it");
  ASSERT_TRUE(fake::wait_for([] { return fake::sent(5, wire::OFFER).size() == 2; }));
  others->lead(2);
  others->hold_payload(2, {1, 70}, message("of the node's first life"));
  others->order({{1, 70}});
  EXPECT_EQ(result(waiting), -1);
  EXPECT_EQ(result(behind), -1);
  EXPECT_TRUE(fake::wait_for([] { return fake::queued(4, 1).empty(); }));
  auto next = submit("of its second");
  EXPECT_EQ(result(next), 0);
  EXPECT_EQ(decided().second.back(), entry(1, 71));
}

// A register decides what was once written to it, and that need not be an entry.
TEST_P(node, decides_nothing_from_a_value_that_is_no_entry)
{
  configure(1, 3);
  set_decided(5, {{2, 3}, {2, 4}}, {2, 4});
  others->adopt(5, {{2, 3}, {2, 4}});
  others->set_register(2, 6, 2, 2, {1, 2, 3, 4});
  others->set_register(3, 6, 2, 2, {1, 2, 3, 4});
  ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
  auto call = submit("mine");
  ASSERT_TRUE(fake::wait_logged("proposal commited (batch_id=6", 2));  // tried again after a pause
  EXPECT_EQ(decided().first, 5u);
  const entry other = others->submit(3, message("by another leader"));
  others->adopt(6, {{2, 3}, {2, 4}, other});
  others->announce(3);
  EXPECT_EQ(result(call), 0);
  EXPECT_EQ(app.lines(), (std::vector<std::string>{"by another leader", "mine"}));
}

TEST_P(node, drops_hostile_decisions_and_forwards_whole)
{
  start_as("MASTER");
  auto call = submit("a");
  ASSERT_EQ(result(call), 0);
  ASSERT_TRUE(fake::settle());
  const auto before = files::all();
  const size_t sent = fake::sent().size();
  const size_t lines = fake::log_lines().size();
  bytes too_many = wire::decide(9, {{2, 3}});
  too_many[13] = 251;
  for (const bytes &hostile :
       {too_many, wire::decide(9, {{0, 3}}), wire::decide(9, {{17, 3}}), wire::decide(9, {{2, 0}}),
        wire::decide(9, {{2, 3}, {255, 1}}), wire::decide(9, {}), wire::forward({0, 5}), wire::forward({4, 5}),
        wire::forward({17, 5}), wire::forward({255, 5})}) {
    fake::inject(4, 2, hostile);
  }
  for (const bytes &whole : {wire::decide(9, {{2, 3}}), wire::forward({2, 5})}) {
    for (size_t n = 0; n < whole.size(); n += n < 20 || n > 1260 ? 1 : 41) {
      fake::inject(4, 2, {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)});
    }
  }
  bytes foreign = fake::envelope(2, 1268);
  foreign[4] ^= 1;  // another cluster, by the high word of its id
  fake::inject_with(4, foreign, wire::decide(9, {{2, 3}}));
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(files::all(), before);
  EXPECT_EQ(fake::sent().size(), sent);
  EXPECT_EQ(fake::log_lines().size(), lines);
  fake::inject(4, 2, wire::words({7}));
  fake::inject(4, 2, wire::forward({3, 0}));  // the line names who sent it
  ASSERT_TRUE(fake::settle());
  EXPECT_EQ(fake::logged("CONS: PAXOS: unknown message type 7\n"), 1u);
  EXPECT_EQ(fake::logged("CONS: PAXOS: FORWARD dupe/busy (sender=2)\n"), 1u);
}

}  // namespace
