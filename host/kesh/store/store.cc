#include "store/store.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace kesh
{

using platform::lock_scope;

int64_t seconds_now()
{
  return static_cast<int64_t>(time(nullptr));
}

void store::check_open() const
{
  if (rows_ == nullptr || has_failed_) {
    throw store_failure(settings_.path +
                        (has_failed_ ? " failed before: nothing more can be written" : " is not open"));
  }
}

void store::write_meta(const store_meta &meta)
{
  transaction writing(db_);
  meta_write(db_, meta);
  writing.commit();
  meta_ = meta;
}

/// H(n), if the row is kept.
std::optional<chain_hash> store::hash_at(uint64_t n)
{
  if (n == meta_.base_n || n == n_) {
    return n == n_ ? hash_ : meta_.base_hash;
  }
  const auto row = n < meta_.base_n || n > n_ ? std::nullopt : rows_->find(n);
  return row ? std::optional(row->hash) : std::nullopt;
}

applied store::apply(std::string_view bytes, const payload &decoded, const library_entry &after)
{
  lock_scope scope(lock_);
  check_open();
  if (!meta_.incomplete.empty()) {
    throw store_failure(settings_.path + " waits for a state, and a payload came: " + meta_.incomplete);
  }
  try {
    return cursor_ <= n_ ? compare(bytes, after) : add(bytes, decoded, after);
  } catch (const std::exception &) {
    has_failed_ = true;
    throw;
  }
}

/// What becomes of each item. The same on every node, since it depends on nothing but the order.
std::vector<item_outcome> store::judge(const payload &decoded, uint64_t &lines) const
{
  std::vector<item_outcome> results;
  results.reserve(decoded.items.size());
  for (const item &one : decoded.items) {
    item_outcome result{.sequence = one.sequence, .attempt = one.attempt, .line = 0, .is_repeat = false};
    if (const auto line = window_.find(decoded.origin, decoded.life, one.sequence)) {
      result.is_repeat = true;
      result.line = *line;
    } else if (one.kind == item_kind::line) {
      result.line = lines_ + ++lines;
    }
    results.push_back(result);
  }
  return results;
}

applied store::add(std::string_view bytes, const payload &decoded, const library_entry &after)
{
  payload_row row;
  applied result{
      .n = n_ + 1, .hash = chain_next(hash_, bytes), .is_redelivered = false, .items = judge(decoded, row.lines)};
  row.n = result.n;
  row.hash = result.hash;
  row.after = after;
  row.origin = decoded.origin;
  row.life = decoded.life;
  row.first_line = lines_ + 1;
  row.items = decoded.items.size();
  row.size = bytes.size();
  row.at = seconds_now();
  window_payload newest{.n = row.n, .life = row.life, .tags = {}};
  newest.tags.reserve(result.items.size());
  for (const item_outcome &one : result.items) {
    newest.tags.push_back({one.sequence, one.line});
  }
  newest.sort();

  const auto &known = window_.of(row.origin);
  const bool is_full = known.size() == tag_window::PAYLOADS_PER_ORIGIN;
  transaction writing(db_);
  rows_->add(row);
  for (size_t i = 0; i < decoded.items.size(); ++i) {
    rows_->add_item(row.n, i, decoded.items[i], result.items[i]);
  }
  if (is_full && known.front().n <= meta_.bare_n) {
    rows_->window_remove(row.origin, known.front().n);
  }
  const auto begun = std::chrono::steady_clock::now();
  writing.commit();
  const auto took = std::chrono::steady_clock::now() - begun;
  ++commits_.count;
  commits_.sum_us += static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());

  window_.add(row.origin, std::move(newest));
  n_ = row.n;
  hash_ = row.hash;
  lines_ += row.lines;
  bytes_ += row.size;
  cursor_ = n_ + 1;
  changed_.signal_all();
  return result;
}

/// A payload that was applied before a restart.
applied store::compare(std::string_view bytes, const library_entry &after)
{
  const auto before = hash_at(cursor_ - 1);
  const auto row = rows_->find(cursor_);
  if (!before || !row) {
    throw store_failure(settings_.path + ": payload " + std::to_string(cursor_) +
                        " was delivered again, and its row is not kept");
  }
  if (chain_next(*before, bytes) != row->hash) {
    store_meta meta = meta_;
    meta.differs_at = cursor_;
    meta.incomplete = "payload " + std::to_string(cursor_) + " was delivered again and is another one";
    write_meta(meta);
    throw store_failure(settings_.path + ": " + meta.incomplete);
  }
  if (row->after != after) {
    transaction writing(db_);
    rows_->set_after(cursor_, after);
    writing.commit();
  }
  return {.n = cursor_++, .hash = row->hash, .is_redelivered = true, .items = rows_->results(row->n)};
}

void store::set_cursor(uint64_t n)
{
  lock_scope scope(lock_);
  check_open();
  if (n <= meta_.base_n || n > n_ + 1) {
    throw store_failure(settings_.path + ": payload " + std::to_string(n) + " is not among rows " +
                        std::to_string(meta_.base_n + 1) + " to " + std::to_string(n_));
  }
  cursor_ = n;
}

void store::mark_incomplete(const std::string &why)
{
  lock_scope scope(lock_);
  check_open();
  store_meta meta = meta_;
  meta.incomplete = why.empty() ? "no reason was given" : why;
  write_meta(meta);
}

store_position store::position()
{
  lock_scope scope(lock_);
  return {.n = n_,
          .hash = hash_,
          .lines = lines_,
          .first_line = first_line_,
          .first_n = meta_.base_n + 1,
          .bytes = bytes_,
          .generation = generation_,
          .incomplete = meta_.incomplete,
          .commits = commits_};
}

std::string line_key(const chain_hash &hash, uint64_t position)
{
  constexpr size_t HASH_DIGITS = 12;
  char digits[5];
  snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(position & 0xffff));
  return hash_text(hash).substr(0, HASH_DIGITS) + digits;
}

journal_end store::end()
{
  lock_scope scope(lock_);
  check_open();
  if (lines_ == 0) {
    return {.lines = 0, .key = NO_LINE_KEY};
  }
  statement select(db_, "SELECT p.hash, (SELECT max(position) FROM item i WHERE i.n = p.n AND i.kind = 1"
                        " AND i.is_repeat = 0) FROM payload p WHERE p.n = (SELECT max(n) FROM payload WHERE lines > 0)"
                        " AND p.items > 0");
  query last(select);
  chain_hash hash{};
  if (!last.next() || !hash_assign(hash, last.bytes(0))) {
    return {.lines = lines_, .key = "?"};
  }
  return {.lines = lines_, .key = line_key(hash, last.number(1))};
}

std::optional<uint64_t> store::find_line(uint8_t origin, uint64_t life, uint64_t sequence)
{
  lock_scope scope(lock_);
  return origin == 0 || origin > ORIGIN_MAX ? std::nullopt : window_.find(origin, life, sequence);
}

store_facts store::facts(const library_entry &record)
{
  lock_scope scope(lock_);
  check_open();
  store_facts result;
  result.is_incomplete = !meta_.incomplete.empty();
  result.n = n_;
  result.row_after = rows_->find_after(record);
  result.taken_over = n_ == 0 ? meta_.taken_over : std::nullopt;
  // A row behind the last state came after it. Rows that the state did not bring may be older: they are ahead of it.
  if (meta_.has_state && meta_.state_n == n_) {
    result.last = store_event::state;
    result.last_after = meta_.state_after;
    result.state_entry = meta_.state_entry;
  } else if (const auto row = rows_->find(n_)) {
    result.last = store_event::payload;
    result.last_after = row->after;
  }
  return result;
}

bool store::wait_change(uint64_t seen_lines, uint64_t seen_generation, std::chrono::steady_clock::time_point deadline)
{
  lock_scope scope(lock_);
  while (lines_ == seen_lines && generation_ == seen_generation && !is_ending_) {
    if (!changed_.wait_until(lock_, deadline)) {
      break;
    }
  }
  return (lines_ != seen_lines || generation_ != seen_generation) && !is_ending_;
}

void store::end_waits()
{
  lock_scope scope(lock_);
  is_ending_ = true;
  changed_.signal_all();
}

}  // namespace kesh
