/// The fabric itself: takes what nodes send, does to it what rules, cuts, holds and armed kills say, and hands it to
/// the receivers' ports, now or later. One thread; nothing waits.
#pragma once

#include "armed_kills.h"
#include "clock.h"
#include "event_log.h"
#include "fault_rules.h"
#include "holds.h"
#include "port.h"
#include "unique_fd.h"
#include "wire_log.h"

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
enum class outcome {
  delivered,
  own,  // delivered to its sender
  lost,
  duplicated,
  delayed,
  reordered,
  cut,
  held,
  bandwidth,
  overflow,
  no_port,
  dead,
  count
};

class network
{
public:
  network(uint64_t seed, wire_log &log, event_log &events) : log_(log), events_(events), rules_(seed), holds_(events) {}

  /// The node's port, which stays valid until detach, replaces an earlier one; a dead node is alive again. pid 0: none
  /// known.
  void attach(uint32_t node, port &where, pid_t pid);
  void detach(uint32_t node, const port &where);
  /// Nodes that have a port of that kind (bits as of node_bit).
  uint32_t nodes_of_kind(std::string_view kind) const;
  /// The process that a kill hits. False if there is none of that number.
  bool set_process(uint32_t node, pid_t pid);

  /// Takes what a node has sent to the nodes of `receivers`.
  void receive(uint32_t from, const datagram_ptr &what, uint32_t receivers);
  /// A node is at a marked point. False: it shall not go on.
  bool marked(uint32_t node, std::string_view point);

  void set_rules(std::vector<fault_rule> rules) { rules_.set(std::move(rules)); }
  void set_cuts(const std::vector<std::pair<uint32_t, uint32_t>> &pairs);
  void set_bandwidth(uint64_t bytes_per_s);
  size_t release(uint64_t id, bool is_drop);
  holds &held() { return holds_; }
  armed_kills &armed() { return kills_; }
  const event_log &events() const { return events_; }

  /// When the next delivery is due; NEVER_NS: none waits.
  int64_t next_due_ns() const;
  void advance(int64_t now);

  nlohmann::json stats() const;

private:
  struct node_state {
    port *where = nullptr;
    pid_t pid = 0;
    platform::unique_fd process;  // means this process even when its number is used again
    bool is_dead = false;
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

  bool is_point_of_death(uint32_t from, const datagram &what);
  void kill(uint64_t id, uint32_t node, const std::string &point);
  int64_t medium_delay_ns(size_t size, int64_t now, bool &is_dropped);
  void route(const delivery &one, int64_t start_ns, int64_t now);
  void deliver_at(const delivery &one, int64_t due_ns, int64_t now);
  void deliver(const delivery &one);
  void let_pass(uint32_t from, uint32_t to);
  void count(outcome what) { ++outcomes_[static_cast<size_t>(what)]; }

  wire_log &log_;
  event_log &events_;
  fault_rules rules_;
  holds holds_;
  armed_kills kills_;
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
