/// What the last two payloads of each origin asked for, and what became of it. A node has at most two payloads under
/// way and repeats all that is open before it sends anything new, so a repeat always finds its first try here.
/// Not synchronised: the store locks around it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "items/payload.h"

namespace kesh
{

struct window_payload {
  struct tag {
    uint64_t sequence = 0;
    uint64_t line = 0;  ///< its line, or the one that it repeats; 0: a no-op
  };

  uint64_t n = 0;
  uint64_t life = 0;
  std::vector<tag> tags;

  void sort();
  /// The tags as 16 bytes each: sequence, line, little-endian.
  std::string pack() const;
  /// False if the size does not fit.
  bool unpack(std::string_view bytes);
};

class tag_window
{
public:
  static constexpr size_t PAYLOADS_PER_ORIGIN = 2;

  /// The line of an item that was applied, 0 for a no-op.
  std::optional<uint64_t> find(uint8_t origin, uint64_t life, uint64_t sequence) const;

  /// Adds the origin's newest payload. Returns the n of the one that falls out, or 0.
  uint64_t add(uint8_t origin, window_payload newest);

  /// Oldest first.
  const std::vector<window_payload> &of(uint8_t origin) const { return origins_[origin - 1u]; }

private:
  std::array<std::vector<window_payload>, ORIGIN_MAX> origins_;
};

}  // namespace kesh
