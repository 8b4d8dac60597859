#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "world.h"

namespace sim
{

namespace
{

constexpr uint32_t LOG_LENGTH = 250;
constexpr size_t FEW_KINDS = 4;

// If the run has a victim, every second one.
uint32_t any_node(world &all, draw &choices)
{
  return all.victim() != 0 && choices.once_in(2) ? all.victim() : static_cast<uint32_t>(choices.below(all.count())) + 1;
}

// The leader as often as all others together: most of what can go wrong is there. Most on the victim, if there is one.
sim_node &some_node(world &all, draw &choices)
{
  if (all.victim() != 0 && !choices.once_in(4)) {
    return all.node(all.victim());
  }
  const uint32_t master = all.master();
  return all.node(master != 0 && choices.once_in(2) ? master : any_node(all, choices));
}

uint32_t any_channel(draw &choices)
{
  return choices.once_in(2) ? 0 : FIRST_CHANNEL + static_cast<uint32_t>(choices.below(CHANNELS));
}

undo kill_one(world &all, draw &choices, int64_t duration_us)
{
  all.crash(some_node(all, choices), duration_us);
  return {};
}

undo kill_all(world &all, draw &choices, int64_t duration_us)
{
  for (uint32_t number = 1; number <= all.count(); ++number) {
    all.crash(all.node(number), choices.between(1, duration_us));
  }
  return {};
}

undo cut_power_one(world &all, draw &choices, int64_t duration_us)
{
  all.cut_power(some_node(all, choices), duration_us);
  return {};
}

undo cut_power_all(world &all, draw &choices, int64_t duration_us)
{
  for (uint32_t number = 1; number <= all.count(); ++number) {
    all.cut_power(all.node(number), choices.between(1, duration_us));
  }
  return {};
}

undo die_at_save(world &all, draw &choices, int64_t duration_us)
{
  sim_node &node = some_node(all, choices);
  node.dies = {.at_operation = 1 + choices.below(40),
               .is_after = choices.once_in(2),
               .with_power = all.is_durable() && choices.once_in(2),
               .down_us = duration_us};
  return [&node] { node.dies.at_operation = 0; };
}

// The message reaches some nodes, or none. Then another node leads, or the same one is back at once: what it had begun
// is taken over.
undo die_at_send(world &all, draw &choices, int64_t duration_us)
{
  static const std::vector<message_kind> of_leaders = {READ_REQUEST, WRITE_REQUEST, WRITE_REQUEST, DECISION, OFFER};
  static const std::vector<message_kind> of_all = {READ_ANSWER, WRITE_ANSWER, FORWARD, OFFER, COMPLETE};
  const uint32_t master = all.master();
  const bool is_leader = master != 0 && choices.once_in(2);
  sim_node &node = is_leader ? all.node(master) : some_node(all, choices);
  node.dies = {.at_send = 1 + choices.below(8),
               .kind = choices.one_of(is_leader ? of_leaders : of_all),
               .reached = choices.once_in(3) ? 0 : static_cast<uint32_t>(choices.below(UINT32_MAX)),
               .with_power = all.is_durable() && choices.once_in(4),
               .down_us = choices.once_in(2) ? choices.spread(200, 5000) : duration_us,
               .next_master = choices.once_in(2) ? any_node(all, choices) : 0,
               .unopened = choices.once_in(8) ? static_cast<uint64_t>(choices.between(1, 3)) : 0};
  return [&node] { node.dies.at_send = 0; };
}

undo pause_one(world &all, draw &choices, int64_t)
{
  sim_node &node = some_node(all, choices);
  node_run *const run = node.run.get();
  if (run == nullptr) {
    return {};
  }
  all.clock().pause(*run);
  return [&all, run] { all.clock().resume(*run); };
}

undo starve_one(world &all, draw &choices, int64_t)
{
  node_run *const run = some_node(all, choices).run.get();
  const std::string but = choices.once_in(4) ? "" : "host-";
  thread *const one = run != nullptr ? all.clock().hold_one(*run, but, choices) : nullptr;
  if (one == nullptr) {
    return {};
  }
  all.say(run->node, one->name + " is held");
  return [&all, run, one] {
    all.clock().let_go(*one);
    run->hook_until_us = std::max(run->hook_until_us, all.clock().now_us());  // stop may have waited for it
  };
}

undo bad_weather(world &all, draw &choices, int64_t)
{
  weather is;
  is.loss = choices.once_in(2) ? 0 : choices.once_in(4) ? 1 : static_cast<double>(choices.between(1, 60)) / 100;
  is.twice = choices.once_in(2) ? 0 : static_cast<double>(choices.between(1, 50)) / 100;
  is.high_us = choices.spread(200, 300'000);
  const uint32_t from = choices.once_in(2) ? 0 : any_node(all, choices);
  const uint32_t to = choices.once_in(2) ? 0 : any_node(all, choices);
  const uint32_t channel = any_channel(choices);
  all.network().set_weather(is, channel, from, to);
  return [&all, channel, from, to] { all.network().set_weather({}, channel, from, to); };
}

undo damage(world &all, draw &choices, int64_t)
{
  weather is;
  is.damage = static_cast<double>(choices.between(5, 50)) / 100;
  const uint32_t channel = any_channel(choices);
  all.network().set_weather(is, channel, 0, 0);
  return [&all, channel] { all.network().set_weather({}, channel, 0, 0); };
}

undo hold_some(world &all, draw &choices, int64_t)
{
  all.network().hold(any_node(all, choices), FIRST_CHANNEL + static_cast<uint32_t>(choices.below(CHANNELS - 1)),
                     static_cast<uint32_t>(choices.spread(1, 200)));
  return [&all] { all.network().release(); };
}

undo partition(world &all, draw &choices, int64_t)
{
  std::vector<bool> side(all.count() + 1);
  for (uint32_t number = 1; number <= all.count(); ++number) {
    side[number] = choices.once_in(2);
  }
  const bool both_ways = !choices.once_in(3);
  const auto set = [&all, side, both_ways](bool is_cut) {
    for (uint32_t from = 1; from <= all.count(); ++from) {
      for (uint32_t to = 1; to <= all.count(); ++to) {
        if (side[from] != side[to] && (both_ways || side[from])) {
          all.network().cut(from, to, is_cut);
        }
      }
    }
  };
  set(true);
  return [set] { set(false); };
}

undo master_moves(world &all, draw &choices, int64_t)
{
  all.set_masters({any_node(all, choices)});
  return {};
}

// A node hears of no decision, and perhaps of nothing at all. Then it leads, perhaps beside the one that did: it hears
// answers, but still no decision. Then it hears of decisions, of payloads a little later, and meanwhile of messages
// that were forwarded before.
undo deafen(world &all, draw &choices, int64_t duration_us)
{
  const uint32_t was = all.master();
  const uint32_t number = any_node(all, choices);
  const bool are_two = choices.once_in(2);
  const bool is_cut_off = choices.once_in(2);
  all.network().set_weather({.loss = 1}, is_cut_off ? 0 : DECISION.channel, 0, number);
  const auto is_over = std::make_shared<bool>(false);  // healing may come first
  all.clock().at(all.clock().now_us() + duration_us / choices.between(2, 8), [&all, number, are_two, was, is_over] {
    if (!*is_over) {
      all.network().set_weather({}, 0, 0, number);
      all.network().set_weather({.loss = 1}, DECISION.channel, 0, number);
      all.set_masters({number, are_two && was != 0 ? was : number});
    }
  });
  const int64_t without_payloads_us = is_cut_off ? choices.spread(1000, 2'000'000) : 1;
  return [&all, number, without_payloads_us, is_over] {
    *is_over = true;
    all.network().set_weather({}, 0, 0, number);
    all.network().set_weather({.loss = 1}, OFFER.channel, 0, number);
    all.clock().at(all.clock().now_us() + without_payloads_us,
                   [&all, number] { all.network().set_weather({}, OFFER.channel, 0, number); });
    all.set_masters({number});
    all.network().repeat_forwards(64, without_payloads_us);
  };
}

// The network brings forwarded messages again: whoever leads has seen them decided, unless it has forgotten.
undo forward_late(world &all, draw &choices, int64_t duration_us)
{
  const uint32_t master = all.master();
  if (master != 0 && choices.once_in(2)) {
    all.crash(all.node(master), choices.spread(200, 5000));
  } else if (choices.once_in(2)) {
    all.set_masters({any_node(all, choices)});
  }
  const auto count = static_cast<size_t>(choices.spread(1, 64));
  for (int64_t within_us = 500; within_us < duration_us; within_us *= 4) {
    all.network().repeat_forwards(count, within_us);
  }
  return {};
}

undo master_flaps(world &all, draw &choices, int64_t duration_us)
{
  const int64_t times = choices.between(2, 8);
  for (int64_t i = 0; i < times; ++i) {
    const uint32_t number = any_node(all, choices);
    all.clock().at(all.clock().now_us() + duration_us * i / times, [&all, number] { all.set_masters({number}); });
  }
  return {};
}

undo two_masters(world &all, draw &choices, int64_t)
{
  const uint32_t was = all.master();
  all.set_masters({any_node(all, choices), any_node(all, choices)});
  return [&all, was] { all.set_masters({was != 0 ? was : 1}); };
}

undo no_master(world &all, draw &choices, int64_t)
{
  const uint32_t next = any_node(all, choices);
  all.set_masters({});
  return [&all, next] { all.set_masters({next}); };
}

undo stop_and_start(world &all, draw &choices, int64_t)
{
  sim_node &node = some_node(all, choices);
  all.host().stop_service(node);
  return [&all, &node] { all.host().start_service(node); };
}

undo clean_up_and_start(world &all, draw &choices, int64_t)
{
  sim_node &node = some_node(all, choices);
  all.host().clean_up_service(node);
  return [&all, &node] { all.host().start_service(node); };
}

// Of some files, or of all; now, or as the first thing that another process meets. Bytes that fdatasync could not write
// do not come with sync either.
undo disk_fails(world &all, draw &choices, int64_t duration_us)
{
  static const std::vector<std::string> names = {"", "rb_reg", "paxos_decide", "paxos_deliver", "msg_id", "payloads"};
  sim_node &node = some_node(all, choices);
  const uint64_t op = choices.once_in(2) ? choices.below(DISK_OPS) : static_cast<uint64_t>(disk_op::open_read);
  const bool takes_room = op == static_cast<uint64_t>(disk_op::write) || op == static_cast<uint64_t>(disk_op::allocate);
  node.disk.failures[op] = {.error = takes_room && choices.once_in(2) ? ENOSPC : EIO,
                            .left = static_cast<uint64_t>(choices.spread(1, 300)),
                            .name = choices.one_of(names)};
  if (op == static_cast<uint64_t>(disk_op::datasync)) {
    node.disk.sync_fails_for = node.disk.failures[op].name;
  }
  if (choices.once_in(2)) {
    all.crash(node, choices.spread(500, duration_us));
  }
  return [&node, op] {
    node.disk.failures[op] = {};
    node.disk.sync_fails_for.reset();
  };
}

undo disk_stalls(world &all, draw &choices, int64_t duration_us)
{
  sim_node &node = some_node(all, choices);
  node.disk.stall_us = choices.spread(100, duration_us / 4 + 200);
  return [&node] { node.disk.stall_us = 0; };
}

undo disk_lost(world &all, draw &choices, int64_t duration_us)
{
  sim_node &node = some_node(all, choices);
  if (all.may_lose_disk(node)) {
    all.lose_disk(node, duration_us);
  }
  return {};
}

undo wall_clock_steps(world &all, draw &choices, int64_t)
{
  sim_node &node = some_node(all, choices);
  node.wall_offset_us += (choices.once_in(2) ? 1 : -1) * choices.spread(1000, int64_t{7200} * 1'000'000);
  return {};
}

undo slow_hooks(world &all, draw &choices, int64_t)
{
  sim_node &node = some_node(all, choices);
  node.deliver_hook_us = choices.once_in(2) ? choices.spread(10, 500'000) : 0;
  node.state_hook_us = choices.once_in(2) ? choices.spread(10, 1'000'000) : 0;
  return [&node] {
    node.deliver_hook_us = 0;
    node.state_hook_us = 0;
  };
}

}  // namespace

const std::vector<fault_kind> &fault_kinds()
{
  static const std::vector<fault_kind> kinds = {
      {"crash", "a process dies between two instructions, and another starts", false, kill_one},
      {"crash-all", "all processes die at once", true, kill_all},
      {"crash-at-save", "a process dies at a file operation, or its power fails there", false, die_at_save},
      {"crash-at-send", "a process dies as it sends, to some nodes or none; another leads, or it is back at once",
       false, die_at_send},
      {"power-cut", "a node loses what no sync has covered", true, cut_power_one},
      {"power-cut-all", "all nodes do, at once", true, cut_power_all},
      {"pause", "a process stands still; its datagrams wait", false, pause_one},
      {"starve", "one thread of a process does not run for a while", false, starve_one},
      {"weather", "loss, duplicates, reordering, delay: all ways or one", false, bad_weather},
      {"damage", "datagrams arrive shortened, lengthened or foreign", false, damage},
      {"hold", "datagrams of a channel are held, and come all at once", false, hold_some},
      {"late-forward", "forwarded messages come again, to a leader that starts, or to another one", false,
       forward_late},
      {"deaf-leader", "a node that hears of no decision leads", false, deafen},
      {"partition", "two sides do not hear each other, or one does not hear the other", false, partition},
      {"master-move", "another node leads", false, master_moves},
      {"master-flap", "the leader changes several times", false, master_flaps},
      {"master-two", "two nodes lead", false, two_masters},
      {"master-none", "nobody leads", false, no_master},
      {"stop-start", "vx_cons_stop, later vx_cons_start", false, stop_and_start},
      {"reinit", "vx_cons_cleanup, later init and start", false, clean_up_and_start},
      {"disk-fail", "file operations of one kind fail", false, disk_fails},
      {"disk-stall", "file operations take long", false, disk_stalls},
      {"disk-lost", "a node comes back with an empty disk, and joins", true, disk_lost},
      {"wall-clock", "the wall clock of a node is set", false, wall_clock_steps},
      {"slow-hook", "hooks take long", false, slow_hooks},
  };
  return kinds;
}

const fault_kind *find_fault(const std::string &name)
{
  for (const fault_kind &kind : fault_kinds()) {
    if (name == kind.name) {
      return &kind;
    }
  }
  return nullptr;
}

std::vector<planned_fault> plan_of(uint64_t seed, uint32_t decisions, std::vector<std::string> names)
{
  std::vector<planned_fault> plan;
  if (names.empty()) {
    return plan;
  }
  draw choices(seed, 3);
  // Every second run has few kinds of faults, and so more of each: what takes two of them comes together more often
  // (Groce et al., Swarm Testing, 2012).
  if (names.size() > FEW_KINDS && choices.once_in(2)) {
    for (size_t i = 0; i < FEW_KINDS; ++i) {
      std::swap(names[i], names[i + choices.below(names.size() - i)]);
    }
    names.resize(static_cast<size_t>(choices.between(2, FEW_KINDS)));
  }
  const int64_t count = choices.spread(2, 24);
  // A log ends at its 250th entry. Most of what can go wrong is near: in every second run, all faults are.
  const bool is_focused = decisions > LOG_LENGTH && choices.once_in(2);
  uint32_t at = 0;
  for (int64_t i = 0; i < count; ++i) {
    if (i == 0 || !choices.once_in(3)) {  // else at once with the last one
      const uint32_t before = choices.once_in(3) ? 60 : 5;
      at = static_cast<uint32_t>(is_focused ? choices.between(LOG_LENGTH - before, LOG_LENGTH + 4)
                                            : choices.between(0, decisions));
    }
    plan.push_back({.kind = find_fault(choices.one_of(names)),
                    .at_decision = at,
                    .duration_us = choices.spread(500, 8'000'000),
                    .stream = choices.below(UINT64_MAX)});
  }
  std::stable_sort(plan.begin(), plan.end(),
                   [](const planned_fault &a, const planned_fault &b) { return a.at_decision < b.at_decision; });
  return plan;
}

}  // namespace sim
