#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "library_files.h"

namespace sim
{

namespace
{

constexpr int64_t S = 1'000'000;
constexpr int64_t LOOK_EVERY_US = 20'000;
constexpr int64_t HEAL_LIMIT_US = 120 * S;
constexpr int64_t STALL_LIMIT_US = 120 * S;
constexpr int64_t RUN_LIMIT_US = 3600 * S;
// A log has 250 payloads, in memory each is an entry and a buffer; a state has 300 KB at most.
constexpr uint64_t MEMORY_AT_REST = 1 << 20;
constexpr size_t BLOCKS_AT_REST = 700;
constexpr size_t BLOCKS_AFTER_CLEANUP = 1;  // the buffer in which registers are saved

std::string held(const node_run &by)
{
  return std::to_string(by.block_bytes) + " bytes in " + std::to_string(by.blocks.size()) + " blocks are held";
}

load drawn_load(draw &choices, const run_options &options)
{
  load is;
  is.submitters = options.submitters != 0 ? options.submitters : static_cast<uint32_t>(choices.between(1, 3));
  is.think_us = choices.spread(200, 20'000) * options.nodes / 3 + 1;
  is.length_max = choices.once_in(4) ? 9000 : 200;
  return is;
}

}  // namespace

world::world(const run_options &options, const library_image &image)
    : options_(options), log_(options.nodes, options.trace), clock_(options.seed, options.how, options.nodes, log_),
      judge_(options.nodes, options.is_durable,
             [this](const std::string &invariant, uint32_t node, const std::string &what) {
               report(invariant, node, what);
             }),
      network_(options.seed, clock_, options.nodes,
               [this](uint32_t to, uint32_t channel, const datagram &one) {
                 sim_node &node = *nodes_[to - 1];
                 if (channel == 3 && one->size() >= ENVELOPE_BYTES + 8) {
                   node.asked_for = std::max(node.asked_for, get_le32(one->data() + ENVELOPE_BYTES + 4));
                 }
                 if (node.run != nullptr && node_host::passes(node, channel, one) &&
                     node.run->inbox[channel - FIRST_CHANNEL].size() < INBOX_MAX) {
                   std::deque<datagram> &inbox = node.run->inbox[channel - FIRST_CHANNEL];
                   inbox.push_back(one);
                   clock_.wake_all(node.run.get(), &inbox);
                 }
               }),
      host_(image, options.copies, options.nodes, options.is_durable), choices_(options.seed, 4)
{
  host_.work = drawn_load(choices_, options);
  if (options.how == policy::pct) {
    host_.stop_limit_us = 60 * S;  // a thread of low priority waits for all others of all nodes
  }
  for (uint32_t number = 1; number <= options.nodes; ++number) {
    auto made = std::make_unique<sim_node>();
    made->number = number;
    made->choices = draw(options.seed, 100 + number);
    made->state_bytes =
        static_cast<uint32_t>(choices_.once_in(4) ? choices_.spread(1400, 60'000) : choices_.between(0, 99));
    nodes_.push_back(std::move(made));
  }
  victim_ = choices_.once_in(2) ? static_cast<uint32_t>(choices_.below(options.nodes)) + 1 : 0;
  plan_ = plan_of(options.seed, options.decisions, options.faults);
  clock_.on_dead_end = [this](const std::string &why) {
    const process *const owner = clock_.self().owner;
    report("waiting", owner != nullptr ? owner->node : 0, why);
  };
  sim_context = {.log = &log_, .clock = &clock_, .network = &network_, .judge = &judge_, .die = [this](sim_node &node) {
                   die(node);
                 }};
}

void world::die(sim_node &node)
{
  const death how = node.dies;
  if (how.with_power) {
    cut_power(node, how.down_us);
  } else {
    crash(node, how.down_us);
  }
  if (how.unopened != 0) {
    node.disk.failures[static_cast<size_t>(disk_op::open_read)] = {
        .error = EIO, .left = how.unopened, .name = "rb_reg"};
  }
  if (how.next_master != 0) {
    set_masters({how.next_master});
  }
}

uint32_t world::master() const
{
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    if (one->vrrp == "MASTER") {
      return one->number;
    }
  }
  return 0;
}

uint32_t world::first_that_may_lead() const
{
  const auto at =
      std::find_if(nodes_.begin(), nodes_.end(), [](const std::unique_ptr<sim_node> &one) { return !one->is_new; });
  return (*at)->number;
}

void world::set_masters(const std::vector<uint32_t> &numbers)
{
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    const bool leads = std::find(numbers.begin(), numbers.end(), one->number) != numbers.end();
    node_host::set_vrrp(*one, leads ? "MASTER" : "BACKUP");
  }
}

void world::restart_later(sim_node &node, int64_t down_us)
{
  clock_.at(clock_.now_us() + down_us, [this, &node] {
    if (node.run == nullptr) {
      host_.start_process(node);
    }
  });
}

void world::crash(sim_node &node, int64_t down_us)
{
  node_host::kill_process(node);
  restart_later(node, down_us);
}

void world::cut_power(sim_node &node, int64_t down_us)
{
  node_host::kill_process(node);
  const std::string state = node.vrrp;
  node.disk.cut_power(node.choices);
  judge_.disk_went_back(node);
  node_host::set_vrrp(node, state);
  restart_later(node, down_us);
}

// The promise asks for a majority that keeps its disks. A node that has joined holds what was decided; what others had
// only offered it before, and what it called complete then, it lost: until that is delivered everywhere no other disk
// may be lost.
bool world::may_lose_disk(const sim_node &node) const
{
  return nodes_.size() >= 3 && node.is_configured &&
         std::all_of(nodes_.begin(), nodes_.end(), [&](const std::unique_ptr<sim_node> &one) {
           return !one->is_new && one->is_configured && clock_.now_us() - one->joined_us > 5 * S;
         });
}

void world::lose_disk(sim_node &node, int64_t down_us)
{
  node_host::kill_process(node);
  node_host::begin_anew(node);
  judge_.disk_went_back(node);
  restart_later(node, down_us);
}

void world::report(const std::string &invariant, uint32_t node, const std::string &what)
{
  run_result so_far = result();
  so_far.is_violated = true;
  std::snprintf(so_far.invariant, sizeof so_far.invariant, "%s", invariant.c_str());
  std::fprintf(stderr, "violated: %s, node %u, step %llu: %s\n", invariant.c_str(), node,
               static_cast<unsigned long long>(clock_.steps()), what.c_str());
  for (const std::string &one : done_) {
    std::fprintf(stderr, "  fault %s\n", one.c_str());
  }
  log_.print_last(stderr);
  if (options_.trace != nullptr) {
    std::fflush(options_.trace);
  }
  ended(so_far);
  std::abort();
}

run_result world::result() const
{
  run_result so_far;
  so_far.decisions = judge_.top_decision();
  so_far.steps = clock_.steps();
  so_far.hand_overs = clock_.hand_overs();
  so_far.hash = log_.hash();
  so_far.acknowledged = judge_.acknowledged();
  so_far.lost = judge_.lost();
  so_far.roll_overs = judge_.roll_overs();
  so_far.virtual_us = clock_.now_us();
  so_far.faults_done = static_cast<uint32_t>(done_.size());
  so_far.memory = memory_;
  return so_far;
}

// As keepalived and a supervisor do: another node leads for one that may not, and a service that ended by itself is
// started again.
void world::look_after()
{
  if (const uint32_t leader = master(); leader != 0 && node(leader).is_new) {
    set_masters({first_that_may_lead()});
  }
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    host_.learn(*one, nodes_);
    node_run *const run = one->run.get();
    if (is_healing_ && run != nullptr && !run->is_started && !run->is_starting) {
      host_.start_service(*one);
    } else if (run != nullptr && run->is_started && !run->is_paused && !is_active(*run)) {
      run->is_started = false;
      say(one->number, "is isolated, and will be started again");
      clock_.at(clock_.now_us() + one->choices.between(1, 2 * S), [this, &node = *one, run] {
        if (node.run.get() == run && !is_healing_) {
          host_.start_service(node);
        }
      });
    }
  }
}

void world::do_faults()
{
  while (next_fault_ < plan_.size() && plan_[next_fault_].at_decision <= judge_.top_decision()) {
    const size_t index = next_fault_++;
    const planned_fault &one = plan_[index];
    if (std::find(options_.left_out.begin(), options_.left_out.end(), index) != options_.left_out.end()) {
      continue;
    }
    char text[120];
    std::snprintf(text, sizeof text, "%zu: %s at decision %u, %lld us", index, one.kind->name, judge_.top_decision(),
                  static_cast<long long>(one.duration_us));
    done_.emplace_back(text);
    say(0, text);
    draw choices(one.stream, 5);
    if (const undo back = one.kind->begin(*this, choices, one.duration_us)) {
      clock_.at(clock_.now_us() + one.duration_us, [this, index, back] {
        if (!is_healing_) {
          say(0, "end of " + std::to_string(index));
          back();
        }
      });
      undos_.push_back(back);
    }
  }
}

bool world::wait_until(const std::function<bool()> &holds, int64_t limit_us)
{
  const int64_t until_us = clock_.now_us() + limit_us;
  while (!holds()) {
    if (clock_.now_us() > until_us) {
      return false;
    }
    clock_.sleep_for(LOOK_EVERY_US, "world");
    look_after();
  }
  return true;
}

void world::heal()
{
  is_healing_ = true;
  say(0, "healing");
  for (const undo &back : undos_) {
    back();
  }
  network_.heal();
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    one->disk.stall_us = 0;
    std::fill(std::begin(one->disk.failures), std::end(one->disk.failures), sim_disk::failure{});
    one->dies = {};
    one->disk.sync_fails_for.reset();
  }
  host_.work.think_us = 300'000;
  set_masters({first_that_may_lead()});
  std::string why = "a node is not active";
  const auto all_active = [this, &why] {
    return std::all_of(nodes_.begin(), nodes_.end(), [&](const std::unique_ptr<sim_node> &one) {
      why = "node " + std::to_string(one->number) + " is not active";
      return one->run != nullptr && one->run->is_started && !one->is_new;
    });
  };
  if (!wait_until(all_active, HEAL_LIMIT_US)) {
    report("healing", 0, why);
  }
  // A submission of each node, begun now, comes back.
  std::vector<uint64_t> before;
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    before.push_back(judge_.acknowledged_by(one->number));
  }
  const auto orders = [this, &before, &why] {
    return std::all_of(nodes_.begin(), nodes_.end(), [&](const std::unique_ptr<sim_node> &one) {
      why = "no new submission of node " + std::to_string(one->number) + " is acknowledged";
      return judge_.acknowledged_by(one->number) > before[one->number - 1] + host_.work.submitters;
    });
  };
  if (!wait_until(orders, HEAL_LIMIT_US)) {
    report("healing", 0, why);
  }
  host_.work.is_on = false;
  if (!wait_until([this, &why] { return judge_.is_healed(nodes_, why); }, HEAL_LIMIT_US)) {
    report("healing", 0, why);
  }
  clock_.sleep_for(3 * S, "world");  // superseded payloads go within a second or so
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    memory_ = std::max(memory_, one->run->block_bytes);
    if (one->run->block_bytes > MEMORY_AT_REST || one->run->blocks.size() > BLOCKS_AT_REST) {
      report("memory", one->number, held(*one->run) + " at rest");
    }
  }
}

void world::end_service()
{
  say(0, "the end");
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    host_.stop_service(*one);
  }
  clock_.sleep_for(8 * S, "world");
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    if (!one->run->was_stopped) {
      report("verdict", one->number, "stop does not return");
    }
    if (one->run->open_calls != 0) {
      report("verdict", one->number, std::to_string(one->run->open_calls) + " calls have not returned after stop");
    }
    host_.clean_up_service(*one);
  }
  clock_.sleep_for(8 * S, "world");
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    if (one->run->is_initialised) {
      report("verdict", one->number, "cleanup does not return");
    }
    if (one->run->blocks.size() > BLOCKS_AFTER_CLEANUP) {
      report("memory", one->number, held(*one->run) + " after cleanup");
    }
  }
}

run_result world::run()
{
  clock_.adopt_main();
  for (const std::unique_ptr<sim_node> &one : nodes_) {
    node_host::set_vrrp(*one, one->number == 1 ? "MASTER" : "BACKUP");
    host_.start_process(*one);
  }
  uint32_t last = 0;
  int64_t progress_us = 0;
  while (judge_.top_decision() < options_.decisions || next_fault_ < plan_.size()) {
    clock_.sleep_for(LOOK_EVERY_US / 20, "world");
    do_faults();
    look_after();
    if (judge_.top_decision() != last) {
      last = judge_.top_decision();
      progress_us = clock_.now_us();
    }
    if (clock_.now_us() - progress_us > STALL_LIMIT_US || clock_.now_us() > RUN_LIMIT_US) {
      say(0, "no progress");
      break;  // healing shows whether it comes back
    }
  }
  heal();
  end_service();
  return result();
}

}  // namespace sim
