// Adopts a state of the cluster: the journal stays as it is, is extended or is replaced.
#include <cerrno>
#include <cstring>

#include "base_record.h"
#include "checksum.h"
#include "journal.h"
#include "platform.h"

namespace kesh
{

using platform::lock_scope;
using platform::log_level;
using platform::log_line;

bool journal::adopt(std::string_view bytes)
{
  journal_state state;
  state.hash = state.base_hash = HASH_START;
  const bool usable = bytes.empty() || (journal_state_decode(bytes, state) && state.lines <= LINES_MAX);
  lock_scope scope(lock_);
  redelivery_possible_ = false;
  if (usable) {
    adopt_state(state);
  } else {
    broken_ = true;
    fail("the state of the cluster cannot be read");
  }
  return usable;
}

void journal::adopt_state(journal_state &state)
{
  if (state.lines == status_.lines && state.hash == status_.hash) {
    tags_ = std::move(state.tags);
    if (status_.incomplete && !failed_) {
      set_whole();
    }
  } else if (extends_this(state)) {
    extend(state);
  } else {
    replace(state);
  }
}

/// Whether this journal is a prefix of the state's, and the state still holds every line that follows.
bool journal::extends_this(const journal_state &state) const
{
  const uint64_t before_last = state.lines - state.last.size();
  if (status_.lines > state.lines || status_.lines < before_last) {
    return false;
  }
  uint64_t hash = state.base_hash;
  for (size_t i = 0; i < status_.lines - before_last; i++) {
    hash = line_hash(hash, state.last[i]);
  }
  return hash == status_.hash;
}

void journal::extend(journal_state &state)
{
  const size_t known = state.last.size() - static_cast<size_t>(state.lines - status_.lines);
  std::string records;
  for (size_t i = known; i < state.last.size(); i++) {
    add_line(state.last[i]);
    file_record_append(records, record_kind::line, status_.lines, status_.hash, state.last[i]);
  }
  tags_ = std::move(state.tags);
  last_tag_ = {};
  append(records);
  if (!failed_ && !file_.flush()) {
    rewrite_needed_ = true;
    fail("cannot write " + settings_.path + ": " + strerror(errno));
  } else if (!failed_ && status_.incomplete) {
    set_whole();
  }
  log_line(log_level::info,
           "journal caught up by the state of the cluster: " + std::to_string(state.last.size() - known) +
               " lines added, now " + std::to_string(status_.lines));
}

void journal::replace(journal_state &state)
{
  const uint64_t before_last = state.lines - state.last.size();
  log_line(log_level::warning, "journal replaced by the state of the cluster: " + std::to_string(state.lines) +
                                   " lines, " + std::to_string(before_last) + " not kept here; it had " +
                                   std::to_string(status_.lines));
  kept_.clear();
  kept_bytes_ = 0;
  kept_base_hash_ = status_.hash = state.base_hash;
  status_.lines = before_last;
  for (const journal_line &line : state.last) {
    add_line(line);
  }
  tags_ = std::move(state.tags);
  last_tag_ = {};
  const std::string records = whole_file();
  status_.first_line = status_.lines - kept_.size() + 1;
  if (file_.replace(records)) {
    set_whole();
    generation_++;
  } else {
    rewrite_needed_ = true;
    fail("cannot replace " + settings_.path + ": " + strerror(errno));
  }
  changed_.signal_all();
}

/// The kept lines as a file, after the record of what was before them.
std::string journal::whole_file()
{
  std::string records;
  uint64_t number = status_.lines - kept_.size();
  uint64_t hash = kept_base_hash_;
  base_record_append(records, number, hash, status_, tags_);
  for (const kept_line &line : kept_) {
    hash = line_hash(hash, line.view());
    file_record_append(records, record_kind::line, ++number, hash, line.view());
  }
  return records;
}

}  // namespace kesh
