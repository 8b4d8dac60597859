/// Chosen deliveries that are kept until somebody lets them go.
#pragma once

#include "event_log.h"
#include "fault_rules.h"

#include <map>
#include <vector>

namespace fabric
{

struct delivery {
  uint32_t from = 0;
  uint32_t to = 0;
  datagram_ptr what;
};

class holds
{
public:
  static constexpr size_t HELD_MAX = 10'000;

  explicit holds(event_log &events) : events_(events) {}

  bool contains(uint64_t id) const { return holds_.contains(id); }
  void add(uint64_t id, const delivery_filter &filter, size_t max) { holds_[id] = {filter, max, {}}; }
  /// True if a hold has kept it.
  bool take(const delivery &one);
  /// Ends the hold; what it kept, in order.
  std::vector<delivery> release(uint64_t id, bool is_drop);

private:
  struct hold {
    delivery_filter filter;
    size_t max = 0;
    std::vector<delivery> kept;
  };
  event_log &events_;
  std::map<uint64_t, hold> holds_;
};

}  // namespace fabric
