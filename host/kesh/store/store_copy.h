/// A copy of the store as it is at one moment, and the check of a store or a copy. Neither disturbs the writer.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "store/store.h"

namespace kesh
{

/// Writes a whole copy of the store at `path` to `target`, while another process, or nobody, applies payloads. It
/// appears under its name when it is complete and on disk; an existing file is never overwritten. Throws a
/// store_failure, also if another store takes the place meanwhile. It delays nobody who does that, and harms neither
/// store: its connection only reads, and so removes no file when it is the last one.
void store_copy(const std::string &path, const std::string &target);

/// Looked at now and then; true: give up. Whoever replaces the store waits for its readers.
using must_end = std::function<bool()>;

struct verify_result {
  std::string fault;  ///< what is wrong, and where; empty: nothing
  uint64_t n = 0;
  uint64_t lines = 0;
  uint64_t verified = 0;  ///< payloads whose hash was computed again from their items
  uint64_t bare = 0;      ///< rows without items, whose hashes cannot be
};

/// Checks the database at `path`: SQLite's integrity_check, the chain, the numbers of rows and lines. Throws a
/// store_failure only where it cannot be read at all, or if it has to give up. A daemon may have it open, in another
/// process or this one; in this one pass its gate, and give up when that closes.
verify_result store_verify(const std::string &path, const must_end &asked = {});

}  // namespace kesh
