#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/paxos_state.h"

#include "node_fixture.h"

#include <cstring>
#include <sstream>

namespace
{

int get_state(uint8_t **state, uint32_t *length)
{
  const std::string snapshot = app.snapshot();
  *length = static_cast<uint32_t>(snapshot.size());
  *state = reinterpret_cast<uint8_t *>(strdup(snapshot.c_str()));  // never made to fail
  return 0;
}

void deliver(const uint8_t *data, uint32_t length, uint32_t full_state)
{
  app.deliver({data, data + length}, full_state);
}

}  // namespace

std::vector<std::string> application::lines() const
{
  const std::lock_guard lock(lock_);
  return lines_;
}

bool application::has(const std::vector<std::string> &expected) const
{
  return fake::wait_for([&] { return lines() == expected; });
}

std::vector<std::string> application::faults() const
{
  const std::lock_guard lock(lock_);
  return faults_;
}

void application::reset()
{
  const std::lock_guard lock(lock_);
  lines_.clear();
  faults_.clear();
  let_go();
  begun_ = 0;
  snapshots_begun_ = 0;
  states_ = 0;
}

void application::deliver(const std::string &text, uint32_t full_state)
{
  ++inside_;
  ++begun_;
  fake::wait_for([this] { return !is_held_; });
  {
    const std::lock_guard lock(lock_);
    if (full_state == 0) {
      lines_.push_back(text);
    } else {
      ++states_;
      std::vector<std::string> state;
      std::istringstream in(text);
      for (std::string line; std::getline(in, line);) {
        state.push_back(line);
      }
      if (!lines_.empty() && lines_ != state) {
        faults_.push_back("a state of " + std::to_string(state.size()) + " lines replaces " +
                          std::to_string(lines_.size()));
      }
      lines_ = state;
    }
  }
  --inside_;
}

std::string application::snapshot()
{
  ++snapshots_begun_;
  const bool is_in_time = fake::wait_for([this] { return !is_snapshot_held_; });
  std::string text;
  const std::lock_guard lock(lock_);
  if (!is_in_time) {
    faults_.push_back("nobody lets a snapshot go");
  }
  if (inside_ != 0) {
    faults_.push_back("a snapshot is taken while a hook runs");
  }
  for (const std::string &line : lines_) {
    text += line + "\n";
  }
  return text;
}

node::node()
{
  files::clear();
  app.reset();
  fake::start(GetParam());
}

node::~node()
{
  app.let_go();
  fake::resume();
  vx_cons_cleanup();
  join_callers();
  EXPECT_TRUE(fake::settle());
  others.reset();
  fake::stop();
  EXPECT_EQ(fake::live_threads(), 0);
  EXPECT_EQ(fake::queued_count(), 0u);
  EXPECT_TRUE(fake::hook_channels().empty());
  EXPECT_EQ(fake::messages_in_hand(), 0u);
  EXPECT_EQ(fake::violations(), std::vector<std::string>());
  EXPECT_EQ(app.faults(), std::vector<std::string>());
  EXPECT_EQ(vx_cons_cluster_active(), 0);
}

void node::init()
{
  ASSERT_EQ(vx_cons_init(), 0);
  vx_cons_register_data_hooks(0, get_state, deliver);
}

int node::configure_call(uint32_t own, uint32_t node_count)
{
  const std::vector<const char *> macs(node_count, fake::MAC);
  return vx_cons_configure("10.0.0.1", "255.0.0.0", "10.0.0.254", macs.data(), node_count, std::to_string(own).c_str(),
                           nullptr);
}

void node::configure(uint32_t own, uint32_t node_count)
{
  init();
  ASSERT_EQ(configure_call(own, node_count), 0);
  others = std::make_unique<fake::peers>(own, node_count);
}

void node::start_as(const std::string &state, uint32_t own, uint32_t node_count)
{
  configure(own, node_count);
  if (state != "MASTER") {
    files::set_node_state(state);
    ASSERT_EQ(vx_cons_start(), 0);
  } else {
    ASSERT_TRUE(lead([] { return vx_cons_start() == 0; }));
  }
}

void node::end_cluster()
{
  others.reset();
  vx_cons_cleanup();
  join_callers();
  EXPECT_TRUE(fake::settle());  // what is on the wire must not reach the next peers
  app.reset();
}

void node::set_decided(uint32_t number, const wire::log &entries, entry last_delivered)
{
  files::write("paxos_decide", wire::words({number}) + wire::log_bytes(entries));
  files::write("paxos_deliver", wire::entry_bytes(last_delivered));
}

std::pair<uint32_t, wire::log> node::decided()
{
  const bytes record = files::read("paxos_decide");
  return {wire::word_at(record, 0), wire::log_at(record, 4)};
}

bool node::wait_decided(uint32_t number)
{
  return fake::wait_for([=] { return decided().first == number; });
}

std::future<int> node::submit(const std::string &text)
{
  // Not std::async, whose future waits when a test gives up.
  std::packaged_task<int()> call([text] {
    return vx_cons_distribute(reinterpret_cast<const uint8_t *>(text.data()), static_cast<uint32_t>(text.size()), 0);
  });
  auto verdict = call.get_future();
  std::promise<void> end;
  auto has_ended = end.get_future();
  const std::lock_guard held(callers_lock);
  callers.push_back({std::thread([call = std::move(call), end = std::move(end)]() mutable {
                       call();
                       end.set_value();
                     }),
                     std::move(has_ended)});
  return verdict;
}

void node::join_callers()
{
  const std::lock_guard held(callers_lock);
  for (caller &one : callers) {
    if (one.has_ended.wait_for(std::chrono::seconds(60)) == std::future_status::ready) {
      one.thread.join();
    } else {
      ADD_FAILURE() << "a call outlives the library";
      one.thread.detach();
    }
  }
  callers.clear();
}

size_t node::open_calls()
{
  cons_lock lock(paxos.deliver_lock);
  size_t count = 0;
  for (const distribute_call *call = paxos.calls; call != nullptr; call = call->next) {
    ++count;
  }
  return count;
}

int node::result(std::future<int> &call)
{
  return call.wait_for(std::chrono::seconds(60)) == std::future_status::ready ? call.get() : -99;
}

void node::stop_in_time()
{
  const auto begin = std::chrono::steady_clock::now();
  vx_cons_stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  EXPECT_EQ(fake::live_threads(), 0);
}

bool node::lead(const fake::condition &then)
{
  const size_t times = fake::logged("Entering Leader Mode");
  files::set_node_state("MASTER");
  // The line comes a moment before the node is leader, and drops what is forwarded in between.
  return then() && fake::wait_logged("Entering Leader Mode", times + 1) &&
         fake::wait_for([] { return paxos.is_leader != 0; });
}

bool node::step_down()
{
  const size_t times = fake::logged("Leaving Leader Mode");
  files::set_node_state("BACKUP");
  return fake::wait_logged("Leaving Leader Mode", times + 1);
}

bool node::wait_joined()
{
  return fake::wait_for([] { return fake::live_threads() == 0; });
}

void node::expect_stopped()
{
  EXPECT_TRUE(fake::wait_for([] { return vx_cons_cluster_active() == 0; }));
  EXPECT_TRUE(wait_joined());
  EXPECT_TRUE(fake::wait_for([] { return fake::queued_count() == 0; }));
  EXPECT_EQ(fake::hook_channels(), (std::vector<uint32_t>{3, 6}));
}

wire::log node::payload_log(size_t count, entry state, uint8_t sender, uint32_t first_id)
{
  wire::log entries = {state};
  while (entries.size() < count) {
    entries.emplace_back(sender, first_id++);
  }
  return entries;
}

INSTANTIATE_TEST_SUITE_P(dispatchers, node, ::testing::Values(fake::dispatch::per_channel, fake::dispatch::one_for_all),
                         [](const auto &mode) {
                           return std::string(mode.param == fake::dispatch::per_channel ? "each" : "one");
                         });
