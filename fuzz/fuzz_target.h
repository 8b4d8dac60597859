/// A fuzz target is a function over bytes that aborts when something does not hold. What happens for an input does not
/// depend on the inputs before it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

/// Ends the process with a line that tells what does not hold.
void require(bool holds, const char *what);

/// Takes an input apart from its front; behind its end there are zeros.
class input_reader
{
public:
  explicit input_reader(std::span<const uint8_t> input) : left_(input) {}
  bool is_empty() const { return left_.empty(); }
  /// At most `count` bytes, in an allocation of their own: sanitizers see who reads beyond them.
  std::vector<uint8_t> bytes(size_t count);
  std::vector<uint8_t> rest() { return bytes(left_.size()); }
  uint8_t byte();
  bool flag() { return (byte() & 1) != 0; }
  /// Mostly `around` or a few more or less, now and then a limit.
  uint32_t near(uint32_t around);

private:
  std::span<const uint8_t> left_;
};
