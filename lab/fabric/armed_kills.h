/// Kills that wait for their moment. Only counts and says when; killing is the network's.
#pragma once

#include "datagram.h"

#include <map>
#include <string>

namespace fabric
{

struct armed_kill {
  uint32_t node = 0;  // 0: any
  std::string point;
  uint64_t skip = 0;
};

class armed_kills
{
public:
  bool empty() const { return armed_.empty(); }
  bool contains(uint64_t id) const { return armed_.contains(id); }
  void add(uint64_t id, armed_kill kill) { armed_[id] = std::move(kill); }
  bool remove(uint64_t id) { return armed_.erase(id) != 0; }

  /// The kill that this event of the node fires, which is then no longer armed.
  std::optional<uint64_t> fired_by(uint32_t node, std::string_view point)
  {
    for (auto &[id, one] : armed_) {
      if ((one.node == 0 || one.node == node) && one.point == point && one.skip-- == 0) {
        const uint64_t fired = id;
        armed_.erase(id);
        return fired;
      }
    }
    return std::nullopt;
  }

private:
  std::map<uint64_t, armed_kill> armed_;
};

/// Is it a point that can come: a message type's name in lower case with dashes, "decide-repeat", or the name of a
/// mark, which the nodes choose: lower case letters and dashes.
bool is_point(std::string_view text);
std::string point_of(message_type type);

}  // namespace fabric
