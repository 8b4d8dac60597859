/// What happened that somebody waits for: armed kills, holds, nodes that came and went.
#pragma once

#include "clock.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace fabric
{

/// Numbered from 1.
class event_log
{
public:
  void add(const char *what, nlohmann::json details)
  {
    details["k"] = events_.size() + 1;
    details["t"] = now_ns();
    details["what"] = what;
    events_.push_back(std::move(details));
  }
  uint64_t last() const { return events_.size(); }
  nlohmann::json since(uint64_t number) const
  {
    nlohmann::json found = nlohmann::json::array();
    for (uint64_t i = number; i < events_.size(); ++i) {
      found.push_back(events_[i]);
    }
    return found;
  }

private:
  std::vector<nlohmann::json> events_;
};

}  // namespace fabric
