/// The random faults: what happens to one datagram on its way to one receiver.
#pragma once

#include "datagram.h"
#include "random_stream.h"

#include <vector>

namespace fabric
{

/// Which deliveries are meant. 0 and nullopt: any.
struct delivery_filter {
  uint32_t from = 0;
  uint32_t to = 0;
  uint32_t channel = 0;
  std::optional<message_type> type;

  bool matches(uint32_t sender, uint32_t receiver, const datagram_info &info) const;
};

struct fault_rule {
  delivery_filter filter;
  double loss = 0, dup = 0, reorder = 0;
  int64_t delay_min_ns = 0, delay_max_ns = 0;
};

struct fate {
  bool is_lost = false;
  uint32_t behind = 0;  // so many later ones go first
  uint32_t copies = 1;
  std::array<int64_t, 2> delay_ns{};  // per copy
};

class fault_rules
{
public:
  explicit fault_rules(uint64_t seed);
  void set(std::vector<fault_rule> rules) { rules_ = std::move(rules); }
  fate decide(uint32_t from, uint32_t to, const datagram_info &info);

private:
  std::vector<fault_rule> rules_;
  // By sender, receiver and channel.
  std::array<std::array<std::array<random_stream, CHANNELS_MAX + 1>, NODES_MAX + 1>, NODES_MAX + 1> streams_;
};

}  // namespace fabric
