/// How long items took from their arrival to their result, as a cumulative histogram needs it.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace kesh
{

struct latencies {
  /// Upper bounds in us; what is above the last one counts only in the sum and in the total.
  static constexpr std::array<uint64_t, 14> BOUNDS_US = {1000,   2000,   5000,    10000,   20000,   50000,    100000,
                                                         200000, 500000, 1000000, 2000000, 5000000, 10000000, 60000000};

  std::array<uint64_t, BOUNDS_US.size()> counts{};  ///< between a bound and the one before it
  uint64_t total = 0;
  uint64_t sum_us = 0;

  void add(uint64_t time_us)
  {
    const auto at = std::lower_bound(BOUNDS_US.begin(), BOUNDS_US.end(), time_us);
    if (at != BOUNDS_US.end()) {
      ++counts[static_cast<size_t>(at - BOUNDS_US.begin())];
    }
    ++total;
    sum_us += time_us;
  }
};

}  // namespace kesh
