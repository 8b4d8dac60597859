/// What one run of "kesh probe" asked, and what came back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace kesh
{

/// Of one node, by one way. Times in us.
struct probe_way {
  uint32_t sent = 0;  ///< asks that count for loss and times
  uint32_t answered = 0;
  int64_t min_us = 0;
  int64_t max_us = 0;
  int64_t sum_us = 0;
  uint32_t largest = 0;  ///< bytes of the longest IP packet that came there undivided; 0: none did

  bool operator==(const probe_way &) const = default;
};

struct probe_peer {
  uint32_t node = 0;
  probe_way unicast;
  probe_way multicast;

  bool operator==(const probe_peer &) const = default;
};

/// Pure: time comes in, in us of a clock that never goes back. Not synchronised.
class probe_report
{
public:
  static constexpr uint32_t TO_ALL = 0;

  /// Of these nodes, 1 to 16.
  explicit probe_report(std::vector<uint32_t> nodes) : nodes_(std::move(nodes)) {}

  /// Notes an ask, to one of the nodes or to all by multicast, and returns its number. `counts`: for loss and times,
  /// not only for `largest`.
  uint32_t ask(uint32_t to, bool counts, uint32_t packet_size, int64_t now_us);
  /// It did not leave this node, so no answer is waited for.
  void not_sent(uint32_t number);
  /// Only the first answer of a node counts, and only one that was asked.
  void answered(uint32_t node, uint32_t number, int64_t now_us);

  /// Whether all answers came that may.
  bool is_complete() const;
  /// By node, in the order of the constructor.
  std::vector<probe_peer> result() const;

private:
  struct asked {
    uint32_t to = TO_ALL;
    bool counts = false;
    bool is_sent = true;
    uint32_t packet_size = 0;
    int64_t at_us = 0;
    std::vector<int64_t> took_us;  // by index of the node; negative: no answer, or not asked
  };
  bool is_asked(const asked &one, size_t index) const { return one.to == TO_ALL || one.to == nodes_[index]; }

  std::vector<uint32_t> nodes_;
  std::vector<asked> asks_;  // by number
};

}  // namespace kesh
