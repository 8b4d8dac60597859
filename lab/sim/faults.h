/// What can be done to a cluster, by name, and the plan that a seed makes of it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "draw.h"

namespace sim
{

class world;

/// Undoes a fault; may be empty.
using undo = std::function<void()>;

struct fault_kind {
  const char *name;
  const char *what;
  bool needs_durable;  ///< without durable payloads it takes away what is promised
  undo (*begin)(world &all, draw &choices, int64_t duration_us);
};

const std::vector<fault_kind> &fault_kinds();
/// Null: there is none of that name.
const fault_kind *find_fault(const std::string &name);

struct planned_fault {
  const fault_kind *kind;
  uint32_t at_decision;
  int64_t duration_us;
  uint64_t stream;  ///< of its own choices, so that one left out changes no other
};

/// Depends on its arguments alone. In the order of the decisions.
std::vector<planned_fault> plan_of(uint64_t seed, uint32_t decisions, std::vector<std::string> names);

}  // namespace sim
