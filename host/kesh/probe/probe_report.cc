#include "probe/probe_report.h"

#include <algorithm>

namespace kesh
{

namespace
{

void add(probe_way &to, int64_t took_us)
{
  to.min_us = to.answered == 0 ? took_us : std::min(to.min_us, took_us);
  to.max_us = std::max(to.max_us, took_us);
  to.sum_us += took_us;
  ++to.answered;
}

}  // namespace

uint32_t probe_report::ask(uint32_t to, bool counts, uint32_t packet_size, int64_t now_us)
{
  asks_.push_back({to, counts, true, packet_size, now_us, std::vector<int64_t>(nodes_.size(), -1)});
  return static_cast<uint32_t>(asks_.size() - 1);
}

void probe_report::not_sent(uint32_t number)
{
  asks_.at(number).is_sent = false;
}

void probe_report::answered(uint32_t node, uint32_t number, int64_t now_us)
{
  const auto index = static_cast<size_t>(std::find(nodes_.begin(), nodes_.end(), node) - nodes_.begin());
  if (index == nodes_.size() || number >= asks_.size()) {
    return;
  }
  asked &one = asks_[number];
  if (is_asked(one, index) && one.took_us[index] < 0) {
    one.took_us[index] = std::max<int64_t>(now_us - one.at_us, 0);
  }
}

bool probe_report::is_complete() const
{
  return std::all_of(asks_.begin(), asks_.end(), [this](const asked &one) {
    for (size_t i = 0; i < nodes_.size(); ++i) {
      if (one.is_sent && is_asked(one, i) && one.took_us[i] < 0) {
        return false;
      }
    }
    return true;
  });
}

std::vector<probe_peer> probe_report::result() const
{
  std::vector<probe_peer> all;
  for (size_t i = 0; i < nodes_.size(); ++i) {
    probe_peer &peer = all.emplace_back(probe_peer{nodes_[i], {}, {}});
    for (const asked &one : asks_) {
      if (!is_asked(one, i)) {
        continue;
      }
      probe_way &way = one.to == TO_ALL ? peer.multicast : peer.unicast;
      way.sent += one.counts ? 1 : 0;
      if (one.took_us[i] >= 0) {
        way.largest = std::max(way.largest, one.packet_size);
        if (one.counts) {
          add(way, one.took_us[i]);
        }
      }
    }
  }
  return all;
}

}  // namespace kesh
