/// One submitted line: its tag, and the payload that carries it through the cluster.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace kesh
{

/// The data type of lines.
inline constexpr uint32_t DATA_TYPE_LINES = 0;

/// Names a line for ever. A line that is submitted again keeps its tag and gets the next attempt number.
struct line_tag {
  uint8_t origin = 0;     ///< node that submitted it, 1 to 16
  uint64_t life = 0;      ///< process life of that node: start time in ns since 1970
  uint64_t sequence = 0;  ///< number within the life, from 1
  auto operator<=>(const line_tag &) const = default;
};

/// A line. It does not own the memory of `text`.
struct journal_line {
  line_tag tag;
  uint32_t attempt = 0;  ///< from 1
  std::string_view text;
};

/// The payload of a line, data type 0. All numbers little-endian.
///   offset  width  field
///   0       4      magic and version, "KJL1"
///   4       1      origin
///   5       8      life
///   13      8      sequence
///   21      4      attempt
///   25      n      text, any bytes
///   25 + n  4      CRC-32 of everything before
std::string line_record_encode(const journal_line &line);

/// False, and `line` unchanged, for anything that line_record_encode cannot produce.
bool line_record_decode(std::string_view bytes, journal_line &line);

/// The running hash after this line: over tag, attempt, length and text, continued from the hash before it.
uint64_t line_hash(uint64_t before, const journal_line &line);

}  // namespace kesh
