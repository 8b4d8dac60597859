#include "store/store_copy.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "store/store_aside.h"

namespace kesh
{

namespace
{

/// Ends a statement of the database when it is asked to. A thread looks: a check of the whole file calls nothing back.
class interruption
{
public:
  interruption(database &of, const must_end &asked) : of_(of), asked_(asked)
  {
    if (asked_) {
      looks_ = std::jthread([this](const std::stop_token &ended) { look(ended); });
    }
  }

private:
  static constexpr std::chrono::milliseconds PERIOD{50};

  void look(const std::stop_token &ended)
  {
    std::mutex lock;
    std::condition_variable_any none;
    std::unique_lock held(lock);
    while (!none.wait_for(held, ended, PERIOD, [] { return false; }) && !ended.stop_requested()) {
      if (asked_()) {
        sqlite3_interrupt(of_.native());  // of the statement that runs now: again until it has ended
      }
    }
  }

  database &of_;
  const must_end &asked_;
  std::jthread looks_;  // last: its thread uses the others
};

/// A temporary file beside the target, gone unless it was named.
class temporary_file
{
public:
  explicit temporary_file(const std::string &target) : path_(target + ".XXXXXX")
  {
    const platform::unique_fd fd(mkstemp(path_.data()));
    if (!fd) {
      throw store_failure(path_ + ": " + strerror(errno));
    }
  }
  ~temporary_file()
  {
    unlink(path_.c_str());
    unlink((path_ + "-journal").c_str());
  }
  temporary_file(const temporary_file &) = delete;
  temporary_file &operator=(const temporary_file &) = delete;
  const std::string &path() const { return path_; }

private:
  std::string path_;
};

}  // namespace

void store_copy(const std::string &path, const std::string &target)
{
  if (has_parts(target)) {
    throw store_failure(target + " exists");
  }
  const temporary_file copy(target);
  const uint64_t copied = file_number(path);
  {
    database own(path, database::mode::read_only);
    statement vacuum(own, "VACUUM INTO ?");
    query(vacuum, as_text{copy.path()}).run();
  }
  if (file_number(path) != copied) {
    throw store_failure(path + " was replaced by a state of the cluster meanwhile: give the command again");
  }
  name_durably(copy.path(), target);
}

namespace
{

std::string integrity_fault(database &in)
{
  statement check(in, "PRAGMA integrity_check(1)");
  query one(check);
  const std::string verdict(one.next() ? one.bytes(0) : "no answer");
  return verdict == "ok" ? "" : "integrity_check: " + verdict;
}

/// Goes through all rows and expects each to follow from the one before.
class chain_check
{
public:
  chain_check(database &in, const store_meta &meta, verify_result &result)
      : walk_(in, meta.base_n, 0), meta_(meta), result_(result), hash_(meta.base_hash)
  {
    result_.n = meta.base_n;
    result_.lines = meta.base_lines;
  }

  /// What is wrong first; empty: nothing.
  std::string run()
  {
    payload_row row;
    while (walk_.next_payload(row)) {
      std::string fault = check_row(row);
      if (!fault.empty()) {
        return "payload " + std::to_string(row.n) + ": " + fault;
      }
      hash_ = row.hash;
      result_.n = row.n;
      result_.lines += row.lines;
    }
    return result_.n < meta_.bare_n ? "rows are missing behind payload " + std::to_string(result_.n) : "";
  }

private:
  std::string check_row(const payload_row &row)
  {
    if (row.n != result_.n + 1) {
      return "it follows payload " + std::to_string(result_.n);
    }
    if (row.first_line != result_.lines + 1) {
      return "its lines begin with " + std::to_string(row.first_line) + ", not " + std::to_string(result_.lines + 1);
    }
    if (row.n <= meta_.bare_n) {
      ++result_.bare;
      return row.items == 0 ? "" : "it is said to be bare and has items";
    }
    ++result_.verified;
    return check_items(row);
  }

  std::string check_items(const payload_row &row)
  {
    std::string bytes;
    put_payload_head(bytes, row.origin, row.life, static_cast<uint32_t>(row.items));
    uint64_t lines = 0;
    uint64_t items = 0;
    item_row one;
    while (walk_.next_item(row.n, one)) {
      ++items;
      put_item_head(bytes, one.what);
      bytes += one.what.bytes;
      if (one.what.kind == item_kind::line && !one.is_repeat) {
        if (one.line != row.first_line + lines) {
          return "item " + std::to_string(items) + " has line " + std::to_string(one.line) + ", not " +
                 std::to_string(row.first_line + lines);
        }
        ++lines;
      }
    }
    if (items != row.items || lines != row.lines || bytes.size() != row.size) {
      return "it has other items than its row says";
    }
    return chain_next(hash_, bytes) == row.hash
               ? ""
               : "its hash does not follow from payload " + std::to_string(row.n - 1) + " and its items";
  }

  row_walk walk_;
  const store_meta &meta_;
  verify_result &result_;
  chain_hash hash_;
};

}  // namespace

verify_result store_verify(const std::string &path, const must_end &asked)
{
  database in(path, database::mode::read_only);
  const interruption giving_up(in, asked);
  transaction one_moment(in);
  verify_result result;
  try {
    schema_check_version(in);
    result.fault = integrity_fault(in);
    if (asked && asked()) {
      throw store_failure("given up", SQLITE_INTERRUPT);  // what a check says that was cut short is no fault
    }
    if (result.fault.empty()) {
      const store_meta meta = meta_read(in);
      result.fault = chain_check(in, meta, result).run();
    }
  } catch (const store_failure &failure) {
    if (!failure.is_damage()) {
      throw;
    }
    result.fault = failure.what();
  }
  return result;
}

}  // namespace kesh
