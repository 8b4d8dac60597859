/// The store of this node: every applied payload, in one SQLite database. See store_schema.h for what it holds.
///
/// Threads: open, create, put_aside and close belong to the thread that starts and stops the daemon, while no other
/// uses the store. apply, set_cursor, the states and mark_incomplete come from the library's hooks, or before the
/// library runs, one at a time. All else may be called from any thread. The lock is a leaf: nothing is called with it
/// held that could call back. What a hook calls needs less than half of a hook's stack.
///
/// Failures are thrown as store_failure. After a failed write the store refuses all further writes: what the library
/// takes as delivered would not be there.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "guarded.h"
#include "items/chain_hash.h"
#include "items/payload.h"
#include "store/database.h"
#include "store/fit.h"
#include "store/last_line.h"
#include "store/state.h"
#include "store/store_rows.h"
#include "store/store_schema.h"
#include "store/tag_window.h"
#include "store/use_gate.h"
#include "unique_fd.h"

namespace kesh
{

/// Before the number in an identity.
inline constexpr char STATE_MAX_IN_IDENTITY[] = ", state.max ";

struct store_settings {
  std::string path;
  std::string identity;           ///< of the cluster; a store of another one is not used
  uint64_t state_max = 16 << 20;  ///< bytes; the same on all nodes
};

/// What a new store begins with: a journal that was taken over, or nothing.
struct store_start {
  chain_hash hash = chain_start();
  uint64_t lines = 0;
  /// Of a journal that was taken over: paxos_deliver then.
  std::optional<library_entry> taken_over{};
  /// Why a state is needed first; empty: none is.
  std::string incomplete{};
};

struct applied {
  uint64_t n = 0;
  chain_hash hash{};
  bool is_redelivered = false;  ///< it was compared with row n, and nothing was written
  /// In the payload's order. Of a bare row that was delivered again: none, since they are not known here.
  std::vector<item_outcome> items;
};

/// What durable commits of payloads took in this life.
struct commit_times {
  uint64_t count = 0;
  uint64_t sum_us = 0;
};

struct store_position {
  uint64_t n = 0;
  chain_hash hash{};
  uint64_t lines = 0;
  uint64_t first_line = 1;  ///< oldest line that is kept; lines + 1: none
  uint64_t first_n = 1;     ///< oldest row that is kept
  uint64_t bytes = 0;       ///< of all payloads that are kept whole
  uint64_t generation = 0;  ///< grows when another database takes the place
  std::string incomplete;   ///< why a state is needed first; empty: none is
  commit_times commits;
};

enum class adoption_kind {
  kept,      ///< this store is equal or ahead; what is ahead will be compared when it is delivered
  extended,  ///< the missing payloads were added
  replaced,  ///< the state took the place of all; lines before its own are a gap
};

struct adoption {
  adoption_kind kind = adoption_kind::kept;
  uint64_t state_n = 0;
  uint64_t added = 0;       ///< whole payloads that came with it
  std::string aside;        ///< where the replaced store is now; empty: there was nothing in it
  bool is_too_far = false;  ///< it was replaced since the state has no lines of the payloads that it lacked
};

/// Beyond any of these limits the oldest payloads go; 0 sets none. The newest RETAINED_PAYLOADS stay in any case.
struct retention {
  uint64_t lines = 0;
  uint64_t bytes = 0;
  uint64_t age_s = 0;
};
inline constexpr uint64_t RETAINED_PAYLOADS = 600;

enum class store_found { ready, absent, unusable };

class store
{
public:
  store() = default;
  ~store() { close(); }
  store(const store &) = delete;
  store &operator=(const store &) = delete;

  /// Locks PATH.lock, finishes what a crash interrupted, and checks the database. Unless it is ready, create() comes
  /// next, after put_aside() for an unusable one, for which `why` says what is wrong. Throws where nothing may be done:
  /// the file is somebody else's or of a newer build, another daemon has it, or the disk fails.
  store_found open(const store_settings &settings, std::string &why) PLATFORM_EXCLUDES(lock_);
  /// Puts what lies there aside. Returns its new path.
  std::string put_aside() PLATFORM_EXCLUDES(lock_);
  /// Makes an empty store and opens it. A -wal without a database is put aside first.
  void create(const store_start &start = {}) PLATFORM_EXCLUDES(lock_);
  void close() PLATFORM_EXCLUDES(lock_);

  /// Takes the next payload of the order: `decoded` from `bytes`. It is durable when this returns.
  applied apply(std::string_view bytes, const payload &decoded, const library_entry &after) PLATFORM_EXCLUDES(lock_);
  /// The next delivery is row n again, then those behind it; n + 1 of the last row: the next one is new.
  void set_cursor(uint64_t n) PLATFORM_EXCLUDES(lock_);
  /// The store is not to be used before a state came. Durable.
  void mark_incomplete(const std::string &why) PLATFORM_EXCLUDES(lock_);

  /// The state at n, in memory from malloc. Throws also while the store is incomplete, or ahead of what was delivered;
  /// or if its rows make no sound state: then the next open() finds it unusable.
  void encode_state(uint8_t **bytes, uint32_t *size) PLATFORM_EXCLUDES(lock_);
  /// Reads and checks a state and keeps it for commit_adopt().
  void begin_adopt(std::string_view bytes) PLATFORM_EXCLUDES(lock_);
  /// Brings the store to the state, all at once. `after`: paxos_deliver now; `entry`: the first entry of the library's
  /// log now, none if it cannot be read.
  adoption commit_adopt(const library_entry &after, const library_entry &entry) PLATFORM_EXCLUDES(lock_);

  store_position position() PLATFORM_EXCLUDES(lock_);
  /// Lines that came without their texts have no key: it is "?" then.
  journal_end end() PLATFORM_EXCLUDES(lock_);
  /// What became of the item, if it is in one of the last two payloads of its origin.
  std::optional<uint64_t> find_line(uint8_t origin, uint64_t life, uint64_t sequence) PLATFORM_EXCLUDES(lock_);
  /// For store_fit(). `record`: paxos_deliver.
  store_facts facts(const library_entry &record) PLATFORM_EXCLUDES(lock_);

  /// Waits until the store has other lines than a position shows, at most until `deadline`. False: the wait is over
  /// because of end_waits() or the deadline.
  bool wait_change(uint64_t seen_lines, uint64_t seen_generation, std::chrono::steady_clock::time_point deadline)
      PLATFORM_EXCLUDES(lock_);
  /// Ends all waits, and those to come.
  void end_waits() PLATFORM_EXCLUDES(lock_);

  /// Removes some of the oldest payloads, if there are more than to keep. True: call again, there is more.
  bool retention_step(const retention &keep, int64_t now_s) PLATFORM_EXCLUDES(lock_);
  /// Moves the WAL's content into the database, beside writers and readers; if the WAL is larger than it should be,
  /// apply() waits for the rest.
  void checkpoint() PLATFORM_EXCLUDES(lock_);

  use_gate &gate() { return gate_; }
  /// Set by open().
  const std::string &path() const { return settings_.path; }

private:
  std::string creating_path() const { return settings_.path + ".creating"; }
  void build(const store_meta &meta, const store_state *state);
  void attach() PLATFORM_REQUIRES(lock_);
  void detach() PLATFORM_REQUIRES(lock_);
  void load() PLATFORM_REQUIRES(lock_);
  void load_window() PLATFORM_REQUIRES(lock_);
  void check_open() const PLATFORM_REQUIRES(lock_);
  void write_meta(const store_meta &meta) PLATFORM_REQUIRES(lock_);
  std::optional<chain_hash> hash_at(uint64_t n) PLATFORM_REQUIRES(lock_);
  std::vector<item_outcome> judge(const payload &decoded, uint64_t &lines) const PLATFORM_REQUIRES(lock_);
  applied compare(std::string_view bytes, const library_entry &after) PLATFORM_REQUIRES(lock_);
  applied add(std::string_view bytes, const payload &decoded, const library_entry &after) PLATFORM_REQUIRES(lock_);
  adoption_kind judge_state(const store_state &state) PLATFORM_REQUIRES(lock_);
  void fill_in(const store_state &state, const store_meta &meta) PLATFORM_REQUIRES(lock_);
  std::string replace_with(const store_state &state, const store_meta &meta) PLATFORM_REQUIRES(lock_);
  void remove_up_to(const payload_row &last, uint64_t bytes) PLATFORM_REQUIRES(lock_);

  store_settings settings_;  // set by open() and not changed while others use the store
  platform::unique_fd locked_;
  use_gate gate_;

  platform::mutex lock_;
  platform::condition changed_;  // lines were added, the database is another one, or the waits end
  database db_ PLATFORM_GUARDED_BY(lock_);
  std::unique_ptr<store_rows> rows_ PLATFORM_GUARDED_BY(lock_);
  store_meta meta_ PLATFORM_GUARDED_BY(lock_);
  uint64_t n_ PLATFORM_GUARDED_BY(lock_) = 0;
  chain_hash hash_ PLATFORM_GUARDED_BY(lock_){};
  uint64_t lines_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint64_t first_line_ PLATFORM_GUARDED_BY(lock_) = 1;
  uint64_t bytes_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint64_t cursor_ PLATFORM_GUARDED_BY(lock_) = 1;  // the n of the next delivery; up to n_ it is compared
  tag_window window_ PLATFORM_GUARDED_BY(lock_);
  uint64_t generation_ PLATFORM_GUARDED_BY(lock_) = 0;
  commit_times commits_ PLATFORM_GUARDED_BY(lock_);
  bool has_failed_ PLATFORM_GUARDED_BY(lock_) = false;
  bool is_ending_ PLATFORM_GUARDED_BY(lock_) = false;
  std::unique_ptr<store_state> pending_ PLATFORM_GUARDED_BY(lock_);  // between begin_adopt and commit_adopt
};

/// Seconds since 1970.
int64_t seconds_now();

}  // namespace kesh
