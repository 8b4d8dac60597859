/// The fabric itself: takes what nodes send, does to it what rules and cuts say, and hands it to the receivers' ports,
/// now or later. One thread; nothing waits.
#pragma once

#include "clock.h"
#include "fault_rules.h"
#include "port.h"
#include "wire_log.h"

#include <nlohmann/json.hpp>

#include <list>
#include <queue>
#include <vector>

namespace fabric
{

constexpr uint32_t node_bit(uint32_t node)
{
  return uint32_t{1} << node;
}

/// Deliveries by what became of them.
enum class outcome { delivered, lost, duplicated, delayed, reordered, cut, bandwidth, overflow, no_port, count };

struct delivery {
  uint32_t from = 0;
  uint32_t to = 0;
  datagram_ptr what;
};

class network
{
public:
  network(uint64_t seed, wire_log &log) : log_(log), rules_(seed) {}

  /// The node's port, which stays valid until detach, replaces an earlier one.
  void attach(uint32_t node, port &where);
  void detach(uint32_t node, const port &where);
  /// Nodes that have a port (bits as of node_bit).
  uint32_t connected() const;

  /// Takes what a node has sent to the nodes of `receivers`.
  void receive(uint32_t from, const datagram_ptr &what, uint32_t receivers);

  void set_rules(std::vector<fault_rule> rules) { rules_.set(std::move(rules)); }
  void set_cuts(const std::vector<std::pair<uint32_t, uint32_t>> &pairs);
  void set_bandwidth(uint64_t bytes_per_s);

  /// When the next delivery is due; NEVER_NS: none waits.
  int64_t next_due_ns() const;
  void advance(int64_t now);

  nlohmann::json stats() const;

private:
  struct node_state {
    port *where = nullptr;
    std::optional<uint32_t> decide_number;  // highest that it has multicast
    uint64_t in = 0, in_bytes = 0, out = 0, out_bytes = 0, overflow = 0;
  };
  struct pending {
    int64_t due_ns;
    uint64_t order;
    delivery what;
    bool operator<(const pending &other) const  // the greatest is the earliest
    {
      return due_ns != other.due_ns ? due_ns > other.due_ns : order > other.order;
    }
  };
  struct held_back {
    delivery what;
    uint32_t behind;
    int64_t due_ns;
  };

  void note(uint32_t from, const datagram &what);
  int64_t medium_delay_ns(size_t size, int64_t now, bool &is_dropped);
  void route(const delivery &one, int64_t start_ns, int64_t now);
  void deliver_at(const delivery &one, int64_t due_ns, int64_t now);
  void deliver(const delivery &one);
  void let_pass(uint32_t from, uint32_t to);
  void count(outcome what) { ++outcomes_[static_cast<size_t>(what)]; }

  wire_log &log_;
  fault_rules rules_;
  std::array<node_state, NODES_MAX + 1> nodes_;
  std::array<uint32_t, NODES_MAX + 1> cuts_{};  // by sender: receivers
  uint64_t bytes_per_s_ = 0;
  int64_t medium_free_ns_ = 0;

  std::priority_queue<pending> pending_;
  size_t pending_bytes_ = 0;
  uint64_t order_ = 0;
  std::list<held_back> held_back_;

  std::array<uint64_t, static_cast<size_t>(outcome::count)> outcomes_{};
  std::array<uint64_t, static_cast<size_t>(message_type::count)> types_{};
};

}  // namespace fabric
