/// The host of a node: starts the library, gives it hooks and submissions, and obeys its operator.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "context.h"

namespace sim
{

struct load {
  uint32_t submitters = 2;    ///< threads per node
  int64_t think_us = 2000;    ///< longest pause between two submissions of a thread
  uint32_t length_max = 200;  ///< of a submission, bytes
  bool is_on = true;
};

class node_host
{
public:
  node_host(const library_image &image, std::string copies, uint32_t nodes, bool is_durable)
      : image_(image), copies_(std::move(copies)), node_count_(nodes), is_durable_(is_durable)
  {
  }

  /// Begins a process of the node. The first one forms the cluster.
  void start_process(sim_node &node);
  /// Ends it between two instructions. Its disk keeps what it has written.
  static void kill_process(sim_node &node);

  /// The operator's commands, each on a thread of its own.
  void stop_service(sim_node &node);
  void start_service(sim_node &node);
  void clean_up_service(sim_node &node);

  /// What keepalived says, written where the library reads it. A node that is new does not lead.
  static void set_vrrp(sim_node &node, const std::string &state);

  /// Whether a datagram may reach the library, or leave it: a node that may have forgotten takes no part in votes.
  static bool passes(const sim_node &node, uint32_t channel, const datagram &one);

  /// The node has lost its disk. It takes no part in votes until learn() says so.
  static void begin_anew(sim_node &node);
  /// What the other nodes tell once a second.
  void learn(sim_node &node, const std::vector<std::unique_ptr<sim_node>> &all);

  load work;
  int64_t stop_limit_us = 3'000'000;

private:
  void run_process(node_run &run);
  void run_receiver(node_run &run, uint32_t channel);
  void run_submitter(node_run &run, uint64_t stream);
  void bring_up(node_run &run);
  void stop_now(node_run &run);

  const library_image &image_;
  std::string copies_;
  uint32_t node_count_;
  bool is_durable_;
};

/// Whether the library says that it is active.
bool is_active(const node_run &run);

/// The number of threads that the library has made and that have not ended.
size_t library_threads(const node_run &run);

}  // namespace sim
