/// Choices that depend on a seed and on nothing else.
#pragma once

#include <cstdint>
#include <vector>

#include "random_stream.h"

namespace sim
{

class draw
{
public:
  draw(uint64_t seed, uint64_t stream) : from_(seed, stream) {}

  /// Uniform in [0, n). n is not 0.
  uint64_t below(uint64_t n) { return from_.next() % n; }
  /// Uniform in [low, high].
  int64_t between(int64_t low, int64_t high)
  {
    return low + static_cast<int64_t>(below(static_cast<uint64_t>(high - low) + 1));
  }
  /// True once in n times.
  bool once_in(uint64_t n) { return below(n) == 0; }
  bool chance(double probability) { return from_.fraction() < probability; }
  /// Each order of magnitude between low and high is as likely as the other. low is at least 1.
  int64_t spread(int64_t low, int64_t high)
  {
    int64_t top = low;
    std::vector<int64_t> steps{low};
    while (top < high / 2) {
      steps.push_back(top *= 2);
    }
    const int64_t from = steps[below(steps.size())];
    return between(from, from * 2 < high ? from * 2 : high);
  }
  template <typename type>
  const type &one_of(const std::vector<type> &all)
  {
    return all[below(all.size())];
  }

private:
  fabric::random_stream from_;
};

}  // namespace sim
