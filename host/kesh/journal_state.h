/// The journal as one node hands it to the others: the last lines, and what is needed of those before to go on.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "line_record.h"
#include "tag_index.h"

namespace kesh
{

/// A line whose text is held here.
struct kept_line {
  line_tag tag;
  uint32_t attempt = 0;
  std::string text;
  journal_line view() const { return {tag, attempt, text}; }
};

/// More lines than any cluster applies. A state that claims more is damaged: counting on from there could wrap.
inline constexpr uint64_t LINES_MAX = INT64_MAX;

struct journal_state {
  uint64_t lines = 0;      ///< all lines ever applied
  uint64_t hash = 0;       ///< running hash over them
  uint64_t base_hash = 0;  ///< running hash before the first line of `last`
  tag_index tags;
  std::vector<journal_line> last;  ///< the newest lines, oldest first; text points into the decoded bytes
};

/// Encodes into a buffer from malloc, which the caller frees. Returns false if there is no memory, or if the size of
/// the state does not fit into 32 bits. All numbers are little-endian.
///   4 magic and version, "KJS1"; u64 lines; u64 hash; u64 base_hash; u32 size and bytes of the tags (tag_index);
///   u32 count of last lines; for each: u8 origin, u64 life, u64 sequence, u32 attempt, u32 length, text;
///   u32 CRC-32 of everything before
bool journal_state_encode(uint64_t lines, uint64_t hash, uint64_t base_hash, const tag_index &tags,
                          const std::deque<kept_line> &last, uint8_t **bytes, uint32_t *size);

/// Decodes, and recomputes the hash over the lines. False if anything does not fit; `state` is then undefined.
bool journal_state_decode(std::string_view bytes, journal_state &state);

/// Bytes of a line in the encoded state.
size_t journal_state_line_size(size_t text_size);

}  // namespace kesh
