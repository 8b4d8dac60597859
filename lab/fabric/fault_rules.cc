#include "fault_rules.h"

#include <algorithm>

namespace fabric
{
namespace
{

constexpr double BEHIND_MAX = 4;

bool is_type(message_type wanted, message_type type)
{
  return wanted == type || (wanted == message_type::decide && type == message_type::decide_update);
}

int64_t between(int64_t low, int64_t high, double fraction)
{
  return low + static_cast<int64_t>(static_cast<double>(high - low) * fraction);
}

}  // namespace

bool delivery_filter::matches(uint32_t sender, uint32_t receiver, const datagram_info &info) const
{
  return (from == 0 || from == sender) && (to == 0 || to == receiver) && (channel == 0 || channel == info.channel) &&
         (!type || is_type(*type, info.type));
}

fault_rules::fault_rules(uint64_t seed)
{
  uint64_t stream = 0;
  for (auto &receivers : streams_) {
    for (auto &channels : receivers) {
      for (random_stream &one : channels) {
        one = random_stream(seed, stream++);
      }
    }
  }
}

fate fault_rules::decide(uint32_t from, uint32_t to, const datagram_info &info)
{
  fate result;
  const auto rule = std::find_if(rules_.begin(), rules_.end(),
                                 [&](const fault_rule &one) { return one.filter.matches(from, to, info); });
  if (rule == rules_.end()) {
    return result;
  }
  // Always all numbers, so that what a rule makes of the next datagram does not depend on what it asked for this one.
  random_stream &random = streams_[from][to][info.channel];
  result.is_lost = random.fraction() < rule->loss;
  result.copies = random.fraction() < rule->dup ? 2 : 1;
  const bool is_reordered = random.fraction() < rule->reorder;
  const auto behind = static_cast<uint32_t>(random.fraction() * BEHIND_MAX) + 1;
  result.behind = is_reordered ? behind : 0;
  for (int64_t &delay_ns : result.delay_ns) {
    delay_ns = between(rule->delay_min_ns, rule->delay_max_ns, random.fraction());
  }
  return result;
}

}  // namespace fabric
