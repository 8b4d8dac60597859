/// The replicated journal of this node: every line in the cluster's order, numbered, with a running hash.
/// All functions may be called from any thread. The lock is a leaf: with it held, nothing is called that could call the
/// journal or the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "guarded.h"
#include "journal_file.h"
#include "journal_state.h"

namespace kesh
{

struct journal_settings {
  std::string path;
  uint64_t keep_lines = 100000;
  uint64_t keep_bytes = 64 << 20;
  bool is_durable = false;  ///< a delivery is on disk when its hook returns
};

struct journal_status {
  uint64_t lines = 0;
  uint64_t hash = 0;
  uint64_t first_line = 1;   ///< number of the oldest line in the file
  uint64_t kept = 0;         ///< newest lines, which go into a state
  uint64_t repeated = 0;     ///< delivered again with another attempt
  uint64_t doubled = 0;      ///< delivered again with the same attempt: a fault
  uint64_t redelivered = 0;  ///< the last one before a restart, delivered again after it
  uint64_t damaged = 0;      ///< payloads that were no lines, since the start
  bool failed = false;       ///< the file could not be written
  bool incomplete = false;   ///< lines are missing in the file, from an earlier failure
};

/// The file as it is now, for a reader with its own pace. Another generation means another file.
struct journal_view {
  platform::unique_fd fd;
  uint64_t size = 0;
  uint64_t generation = 0;
  uint64_t first_line = 1;
};

class journal
{
public:
  /// Reads the file. On failure returns false and `error` says what, where and what to do.
  bool open(const journal_settings &settings, std::string &error) PLATFORM_EXCLUDES(lock_);
  /// Tries repair() if needed and closes the file.
  void close() PLATFORM_EXCLUDES(lock_);

  /// To be called before each start of the protocol: the next delivery may repeat the last one before.
  void expect_redelivery() PLATFORM_EXCLUDES(lock_);

  /// Takes one delivered line. Writes it to the file with one write, unless its tag is known. Returns what it was.
  record_kind apply(const journal_line &line) PLATFORM_EXCLUDES(lock_);
  /// Brings the journal to a delivered state (no bytes: the empty journal). False if the state cannot be read.
  bool adopt(std::string_view bytes) PLATFORM_EXCLUDES(lock_);
  /// The state for the others, see journal_state_encode.
  bool encode_state(uint8_t **bytes, uint32_t *size) PLATFORM_EXCLUDES(lock_);
  /// Counts a delivered payload that is not a line.
  void note_damaged() PLATFORM_EXCLUDES(lock_);
  /// Makes the journal unusable until a restart.
  void note_broken(const std::string &why) PLATFORM_EXCLUDES(lock_);

  /// After a failed write: writes what is missing. True if the journal is whole (again).
  bool repair() PLATFORM_EXCLUDES(lock_);

  bool failed() const { return failed_; }
  journal_status status() PLATFORM_EXCLUDES(lock_);

  journal_view view() PLATFORM_EXCLUDES(lock_);
  /// Waits until the file differs from what `seen` shows, at most wait_ms.
  void wait_change(const journal_view &seen, int wait_ms) PLATFORM_EXCLUDES(lock_);

  /// Called, with the lock held, when a write fails. Set before deliveries begin.
  std::function<void()> on_failure;

private:
  bool load_record(const file_record &record) PLATFORM_REQUIRES(lock_);
  void add_line(const journal_line &line) PLATFORM_REQUIRES(lock_);
  void trim_kept() PLATFORM_REQUIRES(lock_);
  void append(const std::string &records) PLATFORM_REQUIRES(lock_);
  void fail(const std::string &why) PLATFORM_REQUIRES(lock_);
  void set_whole() PLATFORM_REQUIRES(lock_);
  bool extends_this(const journal_state &state) const PLATFORM_REQUIRES(lock_);
  void adopt_state(journal_state &state) PLATFORM_REQUIRES(lock_);
  void extend(journal_state &state) PLATFORM_REQUIRES(lock_);
  void replace(journal_state &state) PLATFORM_REQUIRES(lock_);
  std::string whole_file() PLATFORM_REQUIRES(lock_);
  std::string marker_path() const PLATFORM_REQUIRES(lock_) { return settings_.path + ".incomplete"; }

  platform::mutex lock_;
  platform::condition changed_;  // the file grew or was replaced
  journal_settings settings_ PLATFORM_GUARDED_BY(lock_);
  journal_file file_ PLATFORM_GUARDED_BY(lock_);
  uint64_t generation_ PLATFORM_GUARDED_BY(lock_) = 0;
  tag_index tags_ PLATFORM_GUARDED_BY(lock_);
  std::deque<kept_line> kept_ PLATFORM_GUARDED_BY(lock_);
  uint64_t kept_bytes_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint64_t kept_base_hash_ PLATFORM_GUARDED_BY(lock_) = 0;  // running hash before the first kept line
  journal_status status_ PLATFORM_GUARDED_BY(lock_);
  line_tag last_tag_ PLATFORM_GUARDED_BY(lock_);  // last delivery; sequence 0: none
  uint32_t last_attempt_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool redelivery_possible_ PLATFORM_GUARDED_BY(lock_) = true;
  std::string unwritten_ PLATFORM_GUARDED_BY(lock_);        // records that a failed write left out
  bool rewrite_needed_ PLATFORM_GUARDED_BY(lock_) = false;  // a replacement failed: the file cannot be used
  bool broken_ PLATFORM_GUARDED_BY(lock_) = false;
  std::atomic<bool> failed_ = false;  // changed with the lock held, read by anybody
};

}  // namespace kesh
