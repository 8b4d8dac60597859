/// Random numbers that depend on nothing but the seed and how many were drawn before.
#pragma once

#include <cstdint>

namespace fabric
{

/// SplitMix64: one word of state, so that every way through the network can have a stream of its own.
class random_stream
{
public:
  random_stream() = default;
  random_stream(uint64_t seed, uint64_t stream) : state_(seed)
  {
    state_ = next() ^ stream * 0x9e3779b97f4a7c15;
    state_ = next();
  }

  uint64_t next()
  {
    state_ += 0x9e3779b97f4a7c15;
    uint64_t mixed = state_;
    mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111eb;
    return mixed ^ mixed >> 31;
  }
  /// Uniform in [0, 1).
  double fraction() { return static_cast<double>(next() >> 11) * 0x1p-53; }

private:
  uint64_t state_ = 0;
};

}  // namespace fabric
