/// The tags of all lines ever applied, even if their text is no longer kept. It is small: the sequences of one process
/// life are stored as ranges, and attempts only for a line that was not applied at its first attempt.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "line_record.h"

namespace kesh
{

enum class tag_seen { first_time, other_attempt, same_attempt };

class tag_index
{
public:
  /// Remembers the tag and attempt, and tells whether they were known.
  tag_seen note(const line_tag &tag, uint32_t attempt);

  /// Appends the stored form. All numbers little-endian.
  ///   u32 origins; for each:
  ///     u8 node, u64 life, u32 ranges, ranges x (u64 first, u64 last), u32 entries,
  ///     entries x (u64 sequence, u32 attempts, attempts x u32)
  void encode(std::string &to) const;
  /// False, and the index unchanged, if encode cannot have produced the bytes.
  bool decode(std::string_view bytes);

  bool empty() const { return origins_.empty(); }
  void clear() { origins_.clear(); }

private:
  struct life_lines {
    std::map<uint64_t, uint64_t> ranges;                      // first sequence -> last
    std::map<uint64_t, std::vector<uint32_t>> attempts_seen;  // absent: only attempt 1
  };
  using origin_key = std::pair<uint8_t, uint64_t>;

  static bool decode_life(class byte_reader &reader, life_lines &lines);

  std::map<origin_key, life_lines> origins_;
};

}  // namespace kesh
