#include "journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "base_record.h"
#include "checksum.h"
#include "platform.h"

namespace kesh
{

using platform::lock_scope;
using platform::log_level;
using platform::log_line;

bool journal::open(const journal_settings &settings, std::string &error)
{
  lock_scope scope(lock_);
  settings_ = settings;
  status_.hash = kept_base_hash_ = HASH_START;
  uint64_t cut_bytes = 0;
  const auto visit = [this](const file_record &record) PLATFORM_REQUIRES(lock_) { return load_record(record); };
  if (!file_.open(settings.path, settings.is_durable, visit, cut_bytes, error)) {
    return false;
  }
  if (cut_bytes != 0) {
    log_line(log_level::warning, "journal: cut an unfinished record of " + std::to_string(cut_bytes) +
                                     " bytes off the end of " + settings.path);
  }
  status_.incomplete = access(marker_path().c_str(), F_OK) == 0;
  if (status_.incomplete) {
    log_line(log_level::warning, "journal: lines are missing at the end of " + settings.path +
                                     ", from a failed write; the next full state of the cluster brings them");
  }
  return true;
}

void journal::close()
{
  repair();
  lock_scope scope(lock_);
  file_.flush();
  file_.close();
}

void journal::expect_redelivery()
{
  lock_scope scope(lock_);
  redelivery_possible_ = true;
}

journal_status journal::status()
{
  lock_scope scope(lock_);
  journal_status result = status_;
  result.kept = kept_.size();
  result.failed = failed_;
  return result;
}

journal_view journal::view()
{
  lock_scope scope(lock_);
  return {file_.duplicate(), file_.size(), generation_, status_.first_line};
}

void journal::wait_change(const journal_view &seen, int wait_ms)
{
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  lock_scope scope(lock_);
  while (file_.size() == seen.size && generation_ == seen.generation && changed_.wait_until(lock_, deadline)) {
  }
}

void journal::note_damaged()
{
  lock_scope scope(lock_);
  status_.damaged++;
  redelivery_possible_ = false;
}

void journal::note_broken(const std::string &why)
{
  lock_scope scope(lock_);
  broken_ = true;
  fail(why);
}

/// The records of a file, in their order, rebuild everything that the journal knows.
bool journal::load_record(const file_record &record)
{
  const journal_line line{record.tag, record.attempt, record.text};
  switch (record.kind) {
  case record_kind::base:
    if (status_.lines != 0 || record.number > LINES_MAX || !base_record_apply(record, status_, tags_)) {
      return false;
    }
    kept_base_hash_ = record.hash;
    return true;
  case record_kind::line:
    tags_.note(line.tag, line.attempt);
    add_line(line);
    break;
  case record_kind::repeated:
    tags_.note(line.tag, line.attempt);
    status_.repeated++;
    break;
  case record_kind::doubled:
    status_.doubled++;
    break;
  case record_kind::redelivered:
    status_.redelivered++;
    break;
  }
  last_tag_ = line.tag;
  last_attempt_ = line.attempt;
  return record.number == status_.lines && record.hash == status_.hash;
}

void journal::add_line(const journal_line &line)
{
  status_.lines++;
  status_.hash = line_hash(status_.hash, line);
  kept_.push_back({line.tag, line.attempt, std::string(line.text)});
  kept_bytes_ += journal_state_line_size(line.text.size());
  trim_kept();
}

void journal::trim_kept()
{
  while (kept_.size() > settings_.keep_lines || kept_bytes_ > settings_.keep_bytes) {
    kept_base_hash_ = line_hash(kept_base_hash_, kept_.front().view());
    kept_bytes_ -= journal_state_line_size(kept_.front().text.size());
    kept_.pop_front();
  }
}

record_kind journal::apply(const journal_line &line)
{
  lock_scope scope(lock_);
  record_kind kind = record_kind::line;
  if (redelivery_possible_ && line.tag == last_tag_ && line.attempt == last_attempt_) {
    kind = record_kind::redelivered;
    status_.redelivered++;
    log_line(log_level::info, "journal: redelivered after restart: " + tag_text(line.tag));
  } else if (const tag_seen seen = tags_.note(line.tag, line.attempt); seen == tag_seen::other_attempt) {
    kind = record_kind::repeated;
    status_.repeated++;
  } else if (seen == tag_seen::same_attempt) {
    kind = record_kind::doubled;
    status_.doubled++;
    log_line(log_level::error, "journal: delivered twice: " + tag_text(line.tag) + ", attempt " +
                                   std::to_string(line.attempt) + "; not applied again");
  } else {
    add_line(line);
  }
  redelivery_possible_ = false;
  last_tag_ = line.tag;
  last_attempt_ = line.attempt;

  std::string record;
  const journal_line stored{line.tag, line.attempt, kind == record_kind::line ? line.text : std::string_view()};
  file_record_append(record, kind, status_.lines, status_.hash, stored);
  append(record);
  return kind;
}

void journal::append(const std::string &records)
{
  // After a failure only memory goes on, so that a state that is handed over, and a repair, are complete.
  if (failed_) {
    unwritten_ += records;
  } else if (!file_.append(records)) {
    unwritten_ += records;
    fail("cannot write " + settings_.path + ": " + strerror(errno));
  }
  changed_.signal_all();
}

void journal::fail(const std::string &why)
{
  if (failed_.exchange(true)) {
    return;
  }
  const platform::unique_fd marker(::open(marker_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  log_line(log_level::error, "journal: " + why + "; the node leaves the cluster");
  if (on_failure) {
    on_failure();
  }
}

bool journal::encode_state(uint8_t **bytes, uint32_t *size)
{
  lock_scope scope(lock_);
  if (status_.incomplete) {
    log_line(log_level::error, "journal: handing over a journal in which lines are missing");
  }
  return journal_state_encode(status_.lines, status_.hash, kept_base_hash_, tags_, kept_, bytes, size);
}

void journal::set_whole()
{
  failed_ = false;
  status_.incomplete = false;
  rewrite_needed_ = false;
  unwritten_.clear();
  unlink(marker_path().c_str());
}

bool journal::repair()
{
  lock_scope scope(lock_);
  if (!failed_) {
    return true;
  }
  if (broken_) {
    return false;
  }
  if (rewrite_needed_ ? !file_.replace(whole_file()) : !(file_.append(unwritten_) && file_.flush())) {
    log_line(log_level::error, "journal: still cannot write " + settings_.path + ": " + strerror(errno));
    return false;
  }
  generation_ += rewrite_needed_ ? 1 : 0;
  const bool incomplete_before = status_.incomplete && !rewrite_needed_;
  set_whole();
  if (incomplete_before) {
    status_.incomplete = true;
    const platform::unique_fd marker(::open(marker_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
  log_line(log_level::info, "journal: " + settings_.path + " is whole again");
  changed_.signal_all();
  return true;
}

}  // namespace kesh
