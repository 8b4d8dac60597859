/// The tables of the store, and what it says about itself.
///
///   meta     key, value: see store_meta
///   payload  one row per applied payload. hash: H(n). after: the 5 bytes that the library's record paxos_deliver held
///            while it was applied. first_line: number that the next line had before it. lines: lines it gave. size:
///            bytes of the payload. at: when it was written here, seconds since 1970
///   item     its items. line: own number, of a repeat the number of the line that it repeats, of a no-op 0
///   window   tags of payloads that a repeat may still name, but whose items are not kept (see tag_window)
///
/// Rows base_n + 1 to n are there without a gap. Rows up to bare_n came with a state that did not hold their items:
/// they are bare, which says that size and items are 0.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "items/chain_hash.h"
#include "store/database.h"
#include "store/library_entry.h"

namespace kesh
{

inline constexpr uint32_t STORE_APPLICATION_ID = 0x4b4a5331;  // "KJS1"
inline constexpr uint64_t STORE_SCHEMA_VERSION = 1;

struct store_meta {
  std::string identity;
  std::string incomplete;   ///< why the store must not be used before a state came; empty: it may
  std::string damaged;      ///< what was found wrong in a row; empty: nothing. The next start puts the store aside
  uint64_t differs_at = 0;  ///< a payload that was delivered again differed from this row; 0: none
  uint64_t base_n = 0;      ///< the payload before the first row
  chain_hash base_hash{};   ///< H(base_n)
  uint64_t base_lines = 0;  ///< lines up to there
  uint64_t bare_n = 0;      ///< the last bare row; base_n: none
  bool has_state = false;   ///< a state was adopted, the last one at state_n
  uint64_t state_n = 0;
  library_entry state_after;                ///< paxos_deliver while it was adopted
  library_entry state_entry;                ///< first entry of the library's log while it was adopted
  std::optional<library_entry> taken_over;  ///< paxos_deliver when the journal of an earlier build was taken over
};

/// `incomplete` of a copy that was restored: it is whole, but others may have gone on since.
inline constexpr char RESTORED[] = "restored from a backup";

/// Makes the tables in an empty database.
void schema_create(database &in);
/// Throws store_unsuited if the store is of a newer build.
void schema_check_version(database &in);
/// Throws a store_failure, which is damage, if quick_check finds anything.
void schema_quick_check(database &in);

/// Throws a store_failure, which is damage, if a key is missing.
store_meta meta_read(database &in);
/// To be called within a transaction.
void meta_write(database &in, const store_meta &meta);

/// A store_failure that is damage.
store_failure damaged(const std::string &what);

}  // namespace kesh
