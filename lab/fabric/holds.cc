#include "holds.h"

namespace fabric
{

bool holds::take(const delivery &one)
{
  const datagram_info &info = one.what->info;
  for (auto &[id, each] : holds_) {
    if (each.kept.size() < each.max && each.filter.matches(one.from, one.to, info)) {
      each.kept.push_back(one);
      nlohmann::json details = {
          {"id", id}, {"from", one.from}, {"to", one.to}, {"channel", info.channel}, {"type", type_name(info.type)}};
      if (info.number) {
        details["number"] = *info.number;
      }
      if (info.count) {
        details["count"] = *info.count;
      }
      events_.add("hold", std::move(details));
      return true;
    }
  }
  return false;
}

std::vector<delivery> holds::release(uint64_t id, bool is_drop)
{
  std::vector<delivery> kept = std::move(holds_.at(id).kept);
  holds_.erase(id);
  events_.add("release", {{"id", id}, {"count", kept.size()}, {"drop", is_drop}});
  return kept;
}

}  // namespace fabric
