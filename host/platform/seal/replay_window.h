/// Which counters of one session have come. A sender numbers its datagrams; they overtake each other.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace platform
{

class replay_window
{
public:
  /// A datagram that is so many behind the latest does not count any more. Receive buffers hold some thousand pieces
  /// that smaller messages overtake.
  static constexpr uint64_t SIZE = 65536;

  /// Counters up to `last` do not count.
  void begin(uint64_t last)
  {
    seen_.fill(0);
    floor_ = top_ = last;
  }

  bool is_new(uint64_t counter) const
  {
    return counter > top_ || (counter > floor_ && top_ - counter < SIZE && !bit(counter));
  }

  /// It has come. `counter` is_new().
  void mark(uint64_t counter)
  {
    if (counter > top_ && counter - top_ >= SIZE) {
      seen_.fill(0);
      top_ = counter;
    }
    while (top_ < counter) {
      ++top_;
      word(top_) &= ~mask(top_);
    }
    word(counter) |= mask(counter);
  }

private:
  static uint64_t mask(uint64_t counter) { return uint64_t{1} << counter % 64; }
  uint64_t &word(uint64_t counter) { return seen_[counter % SIZE / 64]; }
  bool bit(uint64_t counter) const { return (seen_[counter % SIZE / 64] & mask(counter)) != 0; }

  std::array<uint64_t, SIZE / 64> seen_{};
  uint64_t floor_ = 0;
  uint64_t top_ = 0;
};

}  // namespace platform
