/// One simulated cluster, from its forming to its end, and what is done to it on the way.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "faults.h"
#include "node_host.h"

namespace sim
{

struct run_options {
  uint64_t seed = 1;
  uint32_t nodes = 3;
  uint32_t decisions = 300;
  bool is_durable = true;
  policy how = policy::uniform;
  std::vector<std::string> faults;  ///< names
  std::vector<uint32_t> left_out;   ///< indices of the plan's faults that are not done
  uint32_t submitters = 0;          ///< per node; 0: drawn
  std::string copies;               ///< directory for the library's copies; empty: in memory
  FILE *trace = nullptr;
};

struct run_result {
  bool is_violated = false;
  char invariant[24] = "";
  uint32_t decisions = 0;
  uint64_t steps = 0;
  uint64_t hand_overs = 0;
  uint64_t hash = 0;
  uint64_t acknowledged = 0;
  uint64_t lost = 0;
  uint64_t roll_overs = 0;
  int64_t virtual_us = 0;
  uint32_t faults_done = 0;
  uint64_t memory = 0;  ///< most bytes that a node's library held at rest, after healing
};

class world
{
public:
  world(const run_options &options, const library_image &image);

  /// Does not return from a violation: prints it, calls `ended`, and ends the process.
  run_result run();
  std::function<void(const run_result &)> ended;

  // For faults.
  sim_node &node(uint32_t number) { return *nodes_[number - 1]; }
  uint32_t count() const { return options_.nodes; }
  scheduler &clock() { return clock_; }
  sim_network &network() { return network_; }
  node_host &host() { return host_; }
  bool is_durable() const { return options_.is_durable; }
  void say(uint32_t node, const std::string &text) { log_.line(clock_.now_us(), node, text); }

  /// The node that most faults of this run hit, so that they come together; 0 if there is none.
  uint32_t victim() const { return victim_; }
  /// The node that keepalived would say leads, or 0.
  uint32_t master() const;
  void set_masters(const std::vector<uint32_t> &numbers);
  /// The process dies; its node starts another one after `down_us`.
  void crash(sim_node &node, int64_t down_us);
  void cut_power(sim_node &node, int64_t down_us);
  void lose_disk(sim_node &node, int64_t down_us);
  bool may_lose_disk(const sim_node &node) const;

private:
  uint32_t first_that_may_lead() const;
  void report(const std::string &invariant, uint32_t node, const std::string &what);
  void die(sim_node &node);
  void restart_later(sim_node &node, int64_t down_us);
  void look_after();
  void do_faults();
  void heal();
  void end_service();
  bool wait_until(const std::function<bool()> &holds, int64_t limit_us);
  run_result result() const;

  run_options options_;
  event_log log_;
  scheduler clock_;
  oracle judge_;
  sim_network network_;
  node_host host_;
  draw choices_;
  std::vector<std::unique_ptr<sim_node>> nodes_;
  std::vector<planned_fault> plan_;
  std::vector<std::string> done_;
  uint64_t memory_ = 0;
  std::vector<undo> undos_;
  size_t next_fault_ = 0;
  uint32_t victim_ = 0;
  bool is_healing_ = false;
};

}  // namespace sim
