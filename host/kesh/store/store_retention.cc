// What keeps the store small: the oldest payloads go, the WAL goes into the database.
#include <sqlite3.h>

#include "store/store.h"

namespace kesh
{

using platform::lock_scope;

namespace
{

// A step is short, since apply() waits for it.
constexpr uint64_t STEP_PAYLOADS = 64;
constexpr uint64_t STEP_ITEMS = 4096;
constexpr int WAL_PAGES_MAX = 16384;

}  // namespace

bool store::retention_step(const retention &keep, int64_t now_s)
{
  lock_scope scope(lock_);
  check_open();
  const auto is_superfluous = [&](const payload_row &row, uint64_t bytes) PLATFORM_REQUIRES(lock_) {
    const uint64_t lines_behind = lines_ + 1 - row.first_line - row.lines;
    return (keep.lines != 0 && lines_behind >= keep.lines) || (keep.bytes != 0 && bytes_ - bytes >= keep.bytes) ||
           (keep.age_s != 0 && row.at < now_s - static_cast<int64_t>(keep.age_s));
  };
  payload_row last;
  uint64_t bytes = 0;
  uint64_t items = 0;
  const uint64_t end = meta_.base_n + STEP_PAYLOADS;
  uint64_t n = meta_.base_n + 1;
  for (; n <= end && n + RETAINED_PAYLOADS <= n_ && items < STEP_ITEMS; ++n) {
    const auto row = rows_->find(n);
    if (!row || !is_superfluous(*row, bytes + row->size)) {
      break;
    }
    last = *row;
    bytes += row->size;
    items += row->items;
  }
  if (last.n != 0) {
    remove_up_to(last, bytes);
  }
  return last.n != 0 && (n > end || items >= STEP_ITEMS);
}

void store::remove_up_to(const payload_row &last, uint64_t bytes)
{
  store_meta meta = meta_;
  meta.base_n = last.n;
  meta.base_hash = last.hash;
  meta.base_lines = last.first_line + last.lines - 1;
  meta.bare_n = std::max(meta.bare_n, last.n);
  transaction writing(db_);
  // A repeat may still name what is in the window.
  for (uint8_t origin = 1; origin <= ORIGIN_MAX; ++origin) {
    for (const window_payload &one : window_.of(origin)) {
      if (one.n > meta_.bare_n && one.n <= meta.bare_n) {
        rows_->window_put(origin, one);
      }
    }
  }
  rows_->remove_up_to(last.n);
  meta_write(db_, meta);
  writing.commit();
  if (meta.bare_n == last.n) {
    first_line_ = meta.base_lines + 1;
  }
  meta_ = meta;
  bytes_ -= bytes;
}

void store::checkpoint()
{
  int pages = 0;
  {
    const use_scope use(gate_);
    database own(settings_.path, database::mode::read_write);
    const int result = sqlite3_wal_checkpoint_v2(own.native(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &pages, nullptr);
    if (result != SQLITE_OK && result != SQLITE_BUSY) {
      throw store_failure(settings_.path + ": checkpoint: " + sqlite3_errmsg(own.native()), result & 0xff);
    }
  }
  if (pages > WAL_PAGES_MAX) {
    // Only with no writer at work does the WAL begin anew. Most of it was moved just now.
    lock_scope scope(lock_);
    check_open();
    sqlite3_busy_timeout(db_.native(), 0);
    sqlite3_wal_checkpoint_v2(db_.native(), nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
    sqlite3_busy_timeout(db_.native(), STORE_BUSY_WAIT_MS);
  }
}

}  // namespace kesh
