/// The state that travels: what a node needs to go on behind payload n, and as many payloads as fit.
///
///   offset  width  content, little-endian
///   0       4      magic "KST1"
///   4       1      version, 1
///   5       4      length of the identity, then the identity
///   ...     8      n
///           32     H(n)
///           8      lines
///           8      base n: the payload before the first row
///           32     H(base n)
///           8      lines up to there
///           8      bare n: rows up to this one are bare
///           ...    rows of the payloads base n + 1 to n
///           4      number of window payloads
///           ...    window payloads: the last two of each origin, an origin's older one first
///           32     SHA-256 of all before
///
/// A row:
///           32     H
///           5      after, a library_entry
///           1      origin
///           8      life
///           4      lines it gave
///           4      size of the payload; 0: a bare row, which ends here
///           ...    the payload's bytes
///           4      number of repeats, each: position in the payload u32, line u64
///
/// A window payload: origin u8, n u64, life u64, number of tags u32, each: sequence u64, line u64.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "items/chain_hash.h"
#include "store/store_rows.h"
#include "store/tag_window.h"

namespace kesh
{

inline constexpr std::string_view STATE_MAGIC = "KST1";
inline constexpr uint8_t STATE_VERSION = 1;
inline constexpr uint64_t STATE_ROW_SIZE = 32 + 5 + 1 + 8 + 4 + 4;
inline constexpr uint64_t STATE_REPEAT_SIZE = 4 + 8;
/// Rows that a state has at least, if the store has them.
inline constexpr uint64_t STATE_ROWS = 512;

struct state_row {
  payload_row row;           ///< `at` is not part of a state
  std::string_view payload;  ///< empty: a bare row
  std::vector<std::pair<uint32_t, uint64_t>> repeats;
};

struct store_state {
  std::string bytes;  ///< the rows point into it
  std::string identity;
  uint64_t n = 0;
  chain_hash hash{};
  uint64_t lines = 0;
  uint64_t base_n = 0;
  chain_hash base_hash{};
  uint64_t base_lines = 0;
  uint64_t bare_n = 0;
  std::vector<state_row> rows;
  std::vector<std::pair<uint8_t, window_payload>> window;

  store_state() = default;
  store_state(const store_state &) = delete;
  store_state &operator=(const store_state &) = delete;

  /// H(at), if it is known.
  std::optional<chain_hash> hash_at(uint64_t at) const;
};

/// Takes the bytes and checks all of them: the checksum, the chain through all payloads that are whole, the lines.
/// Throws a store_failure that says what is wrong.
void state_decode(std::string bytes, store_state &to);

/// What became of the items of a row: lines are numbered from first_line, repeats as the row says.
std::vector<item_outcome> state_row_results(const state_row &of, const payload &decoded);

}  // namespace kesh
