#include "node_host.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "library_files.h"

namespace sim
{

namespace
{

constexpr const char *NODE_STATE_FILE = "/var/run/node_state";
constexpr uint32_t UNKNOWN_IDS_MAX = 65536;
constexpr uint32_t MISSING = 4;

// Histories that snapshots name: a snapshot carries its index.
std::vector<std::vector<uint32_t>> snapshots;

std::string bytes_of(uint32_t number)
{
  uint8_t bytes[4];
  put_le32(bytes, number);
  return {reinterpret_cast<const char *>(bytes), sizeof bytes};
}

void pass_hook_time(node_run &run, int64_t us, const char *what)
{
  scheduler &clock = *sim_context.clock;
  if (run.was_stopped) {
    sim_context.judge->break_promise("silence", run.node, "a stopped library calls a hook");
  }
  run.hook_until_us = clock.now_us() + us;
  if (us != 0) {
    clock.sleep_for(us, what);
  }
  caught(what);
  run.hook_until_us = std::max(run.hook_until_us, clock.now_us());
}

void adopt(node_run &run, uint32_t type, const uint8_t *bytes, uint32_t length)
{
  application &app = run.home->app;
  if (type == 0) {
    app.arriving.emplace();
    if (length != 0 && (length != 4 || get_le32(bytes) >= snapshots.size())) {
      sim_context.judge->break_promise("integrity", run.node, "a full state is not what a node handed over");
    } else if (length != 0) {
      *app.arriving = snapshots[get_le32(bytes)];
    }
    return;
  }
  if (!app.arriving.has_value()) {
    sim_context.judge->break_promise("integrity", run.node, "a full state does not begin with type 0");
    return;
  }
  for (uint32_t i = 0; i < length; ++i) {
    if (type != 1 || bytes[i] != static_cast<uint8_t>(i * 13)) {
      sim_context.judge->break_promise("integrity", run.node, "a full state has other bytes");
      return;
    }
  }
  if (type == 3) {
    sim_context.judge->state_adopted(*run.home, *app.arriving);
    app.history = *std::exchange(app.arriving, std::nullopt);
  }
}

void deliver(uint32_t type, const uint8_t *bytes, uint32_t length, uint32_t full_state)
{
  node_run &run = here();
  pass_hook_time(run, run.home->deliver_hook_us, "hook");
  if (full_state != 0) {
    adopt(run, type, bytes, length);
    run.is_first_delivery = run.is_first_delivery && type != 3;
  } else {
    sim_context.judge->delivered(*run.home, bytes, length, run.is_first_delivery);
    run.is_first_delivery = false;
  }
  caught("hook-done");
}

int get_state(uint32_t type, uint8_t **state, uint32_t *length)
{
  node_run &run = here();
  pass_hook_time(run, run.home->state_hook_us, "state-hook");
  if (type == 3) {
    return -1;
  }
  std::string bytes;
  if (type == 0) {
    bytes = bytes_of(static_cast<uint32_t>(snapshots.size()));
    snapshots.push_back(run.home->app.history);
  } else if (type == 1) {
    for (uint32_t i = 0; i < run.home->state_bytes; ++i) {
      bytes += static_cast<char>(static_cast<uint8_t>(i * 13));
    }
  }
  *length = static_cast<uint32_t>(bytes.size());
  *state = static_cast<uint8_t *>(std::malloc(bytes.size() + 1));
  std::memcpy(*state, bytes.data(), bytes.size());
  return 0;
}

template <uint32_t type>
void deliver_hook(const uint8_t *bytes, uint32_t length, uint32_t full_state)
{
  deliver(type, bytes, length, full_state);
}

template <uint32_t type>
int state_hook(uint8_t **state, uint32_t *length)
{
  return get_state(type, state, length);
}

void clmsg_hook(const uint8_t *, uint32_t, uint32_t)
{
  if (!here().is_initialised) {
    sim_context.judge->break_promise("silence", here().node, "the hook of cluster messages is called after cleanup");
  }
  caught("clmsg-hook");
}

void register_hooks(const library_copy &library)
{
  library.register_data_hooks(0, state_hook<0>, deliver_hook<0>);
  library.register_data_hooks(1, state_hook<1>, deliver_hook<1>);
  library.register_data_hooks(2, state_hook<2>, deliver_hook<2>);
  library.register_data_hooks(3, state_hook<3>, deliver_hook<3>);
  library.register_clmsg_hook(0, clmsg_hook);
}

// The greatest register that it may have answered for.
uint32_t top_of(const sim_node &node)
{
  uint32_t top = std::max(number_in(node.disk, DECIDE_FILE), node.asked_for);
  for (const uint32_t id : registers_on(node.disk)) {
    top = std::max(top, id);
  }
  return top;
}

// The log's last entry is the last one delivered.
bool is_handled(const sim_node &node)
{
  const sim_disk::file_ptr decide = node.disk.find(DECIDE_FILE);
  const sim_disk::file_ptr deliver = node.disk.find(DELIVER_FILE);
  if (decide == nullptr || deliver == nullptr || decide->bytes.size() < 1258 || deliver->bytes.size() < 5) {
    return false;
  }
  const uint32_t count = get_le32(decide->bytes.data() + 4);
  return count == 0 ||
         (count <= 250 && std::memcmp(decide->bytes.data() + 8 + 5 * (count - 1), deliver->bytes.data(), 5) == 0);
}

}  // namespace

void node_host::start_process(sim_node &node)
{
  auto run = std::make_unique<node_run>();
  run->node = node.number;
  run->home = &node;
  node.run = std::move(run);
  node.app.arriving.reset();
  node_run &started = *node.run;
  scheduler &clock = *sim_context.clock;
  clock.create(&started, "host-main", [this, &started] { run_process(started); });
  for (uint32_t channel = FIRST_CHANNEL; channel < FIRST_CHANNEL + CHANNELS; ++channel) {
    clock.create(&started, "host-receiver", [this, &started, channel] { run_receiver(started, channel); });
  }
  for (uint32_t i = 0; i < work.submitters; ++i) {
    const uint64_t stream = node.choices.below(UINT64_MAX);
    clock.create(&started, "host-submitter", [this, &started, stream] { run_submitter(started, stream); });
  }
}

void node_host::kill_process(sim_node &node)
{
  if (node.run == nullptr) {
    return;
  }
  sim_context.log->line(sim_context.clock->now_us(), node.number, "the process dies");
  node.dies = {};
  sim_context.clock->kill(*node.run);
  node.past.push_back(std::move(node.run));
}

void node_host::run_process(node_run &run)
{
  std::string error;
  if (!run.library.load(image_, copies_, libc_calls(), error)) {
    sim_context.judge->break_promise("process", run.node, error);
  }
  run.first_storage.assign(run.library.storage.begin(), run.library.storage.end());
  run.storage = run.library.storage.data();
  bring_up(run);
}

void node_host::bring_up(node_run &run)
{
  sim_node &node = *run.home;
  if (std::exchange(run.is_starting, true)) {
    return;
  }
  run.library.init();
  register_hooks(run.library);
  run.is_initialised = true;
  if (!node.is_configured) {
    std::vector<std::string> macs;
    std::vector<const char *> texts;
    for (uint32_t i = 1; i <= node_count_; ++i) {
      macs.push_back("02:00:00:00:00:" + std::string(i < 10 ? "0" : "") + std::to_string(i));
    }
    for (const std::string &mac : macs) {
      texts.push_back(mac.c_str());
    }
    node.config["cluster.supported"] = "1";
    node.config["cluster.durable_payloads"] = is_durable_ ? "1" : "0";
    const std::string id = std::to_string(node.number);
    if (run.library.configure("10.0.0.1", "255.0.0.0", "10.0.0.254", texts.data(), node_count_, id.c_str(), "1") != 0) {
      run.is_starting = false;
      return;  // the disk fails: the operator's next start tries again
    }
    node.is_configured = true;
  }
  run.was_stopped = false;
  ++run.starts;
  run.is_first_delivery = true;
  run.is_started = run.library.start() == 0;
  run.is_starting = false;
  sim_context.log->line(sim_context.clock->now_us(), run.node, run.is_started ? "started" : "start failed");
}

void node_host::run_receiver(node_run &run, uint32_t channel)
{
  scheduler &clock = *sim_context.clock;
  std::deque<datagram> &inbox = run.inbox.at(channel - FIRST_CHANNEL);
  for (;;) {
    while (inbox.empty()) {
      clock.wait(&inbox, NEVER, "wait-datagram");
    }
    const datagram one = inbox.front();
    inbox.pop_front();
    const receive_hook hook = run.hooks.at(channel - FIRST_CHANNEL);
    if (hook == nullptr) {
      continue;
    }
    std::vector<uint8_t> object(4 + one->size());
    std::copy(one->begin(), one->end(), object.begin() + 4);
    caught("receive", channel);
    if (run.hooks.at(channel - FIRST_CHANNEL) == hook) {
      hook(object.data());
    }
  }
}

void node_host::run_submitter(node_run &run, uint64_t stream)
{
  scheduler &clock = *sim_context.clock;
  draw choices(stream, run.node);
  for (;;) {
    clock.sleep_for(choices.between(1, work.think_us), "think");
    if (!work.is_on || !run.is_started || run.home->is_new) {
      clock.sleep_for(50'000, "idle");
      continue;
    }
    const auto length = static_cast<uint32_t>(choices.spread(4, work.length_max));
    const submission &one = sim_context.judge->call(run.node, length);
    const std::vector<uint8_t> bytes = submission_bytes(one);
    const uint32_t type = static_cast<uint32_t>(choices.below(4));
    ++run.open_calls;
    const int result = run.library.distribute(bytes.data(), one.length, type);
    --run.open_calls;
    sim_context.judge->returned(one, result, run.home->app);
    if (choices.once_in(20)) {
      run.library.bcast_clmsg(0, bytes.data(), std::min(one.length, 100u));
    }
  }
}

void node_host::stop_now(node_run &run)
{
  scheduler &clock = *sim_context.clock;
  run.is_started = false;
  const uint32_t starts = run.starts;
  const int64_t from_us = clock.now_us();
  run.library.stop();
  const int64_t took_us = clock.now_us() - std::max(from_us, run.hook_until_us);
  run.was_stopped = run.starts == starts && !run.is_starting;  // else a start may have waited for this stop
  sim_context.log->line(clock.now_us(), run.node, "stopped");
  if (took_us > stop_limit_us) {
    sim_context.judge->break_promise("verdict", run.node, "stop took " + std::to_string(took_us) + " us");
  }
}

void node_host::stop_service(sim_node &node)
{
  if (node.run != nullptr && node.run->is_initialised) {
    node_run &run = *node.run;
    sim_context.clock->create(&run, "host-stop", [this, &run] { stop_now(run); });
  }
}

void node_host::start_service(sim_node &node)
{
  if (node.run != nullptr && node.run->library.init != nullptr) {  // else its main thread is about to
    node_run &run = *node.run;
    sim_context.clock->create(&run, "host-start", [this, &run] { bring_up(run); });
  }
}

void node_host::clean_up_service(sim_node &node)
{
  if (node.run != nullptr && node.run->is_initialised) {
    node_run &run = *node.run;
    sim_context.clock->create(&run, "host-cleanup", [&run] {
      run.is_started = false;
      const uint32_t starts = run.starts;
      run.library.cleanup();
      if (run.starts != starts || run.is_starting) {
        return;  // a start may have waited for this
      }
      run.is_initialised = false;
      run.was_stopped = true;
      if (const size_t left = library_threads(run); left != 0) {
        sim_context.judge->break_promise("waiting", run.node, std::to_string(left) + " threads are left after cleanup");
      }
    });
  }
}

void node_host::set_vrrp(sim_node &node, const std::string &state)
{
  node.vrrp = state;
  node.disk.put(NODE_STATE_FILE, (node.is_new && state == "MASTER" ? "BACKUP" : state) + "\n");
}

bool node_host::passes(const sim_node &node, uint32_t channel, const datagram &one)
{
  const uint8_t *const payload = one->data() + ENVELOPE_BYTES;
  const size_t size = one->size() - ENVELOPE_BYTES;
  if (channel == 3) {
    return !node.is_new;
  }
  if (channel == 5 && size >= 8 && payload[0] == MISSING) {
    const uint32_t id = get_le32(payload + 4);
    return !node.is_new && (payload[3] > NODES_MAX || id > node.held_missing[payload[3]]);
  }
  return true;
}

void node_host::begin_anew(sim_node &node)
{
  node.ids_before = number_in(node.disk, MSG_ID_FILE);
  node.disk.empty();
  node.app = {};
  node.is_new = true;
  node.is_configured = false;
  node.first_tops = {};
  node.asked_for = 0;
  node.held_missing = {};
  set_vrrp(node, node.vrrp);
}

void node_host::learn(sim_node &node, const std::vector<std::unique_ptr<sim_node>> &all)
{
  if (!node.is_new || node.run == nullptr || !node.run->is_started) {
    return;
  }
  uint32_t top = 0;
  for (const std::unique_ptr<sim_node> &other : all) {
    if (other.get() == &node) {
      continue;
    }
    if (other->run != nullptr && !other->run->is_paused && !node.first_tops[other->number]) {
      node.first_tops[other->number] = top_of(*other);
    }
    if (!node.first_tops[other->number]) {
      return;
    }
    top = std::max(top, *node.first_tops[other->number]);
  }
  if (number_in(node.disk, DECIDE_FILE) < top || !is_handled(node)) {
    return;
  }
  node_run &run = *node.run;
  sim_context.log->line(sim_context.clock->now_us(), node.number, "joins");
  for (const std::unique_ptr<sim_node> &other : all) {
    node.held_missing[other->number] = number_in(other->disk, MSG_ID_FILE);
  }
  node.held_missing[node.number] = node.ids_before;
  sim_context.clock->create(&run, "host-join", [this, &run] {
    sim_node &home = *run.home;
    stop_now(run);
    home.disk.put(MSG_ID_FILE, bytes_of(home.ids_before + UNKNOWN_IDS_MAX));
    home.is_new = false;
    home.joined_us = sim_context.clock->now_us();
    set_vrrp(home, home.vrrp);
    // The library has its last identifier in memory since configure: a new process reads the file.
    sim_context.clock->at(sim_context.clock->now_us(), [this, &run, &home] {
      if (home.run.get() == &run) {
        kill_process(home);
        start_process(home);
      }
    });
  });
  run.is_started = false;
}

bool is_active(const node_run &run)
{
  return run.library.cluster_active() != 0;
}

size_t library_threads(const node_run &run)
{
  return sim_context.clock->living(run, "host-");
}

}  // namespace sim
