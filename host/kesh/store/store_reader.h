/// Reads lines beside the writer, with a connection of its own for each batch. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store/database.h"
#include "store/store.h"

namespace kesh
{

struct store_line {
  uint64_t line = 0;
  uint64_t n = 0;   ///< the payload it came with
  std::string key;  ///< see journal_end
  uint8_t origin = 0;
  uint64_t life = 0;
  uint64_t sequence = 0;
  uint32_t attempt = 0;
  int64_t at = 0;  ///< when it was written here, seconds since 1970
  std::string text;
};

/// Lines from number `from` on, at most `lines_max`, and no more than one behind `bytes_max` bytes of text. It begins
/// with the first line that is kept; none: there is nothing yet, see store::wait_change(). Throws a store_failure.
std::vector<store_line> store_read_lines(store &of, uint64_t from, size_t lines_max, size_t bytes_max);

/// The same from a database that no daemon of this process has open.
std::vector<store_line> store_read_lines(database &in, uint64_t from, size_t lines_max, size_t bytes_max);

}  // namespace kesh
