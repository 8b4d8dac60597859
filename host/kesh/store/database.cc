#include "store/database.h"

#include <sqlite3.h>

#include <cstring>

namespace kesh
{

namespace
{

[[noreturn]] void fail(sqlite3 *native, const std::string &path, const char *doing)
{
  std::string text = path + ": " + doing + ": " + sqlite3_errmsg(native);
  const int code = sqlite3_errcode(native) & 0xff;
  const int system_error = sqlite3_system_errno(native);
  if ((code == SQLITE_IOERR || code == SQLITE_CANTOPEN) && system_error != 0) {
    text += std::string(": ") + strerror(system_error);
  }
  throw store_failure(text, code);
}

[[noreturn]] void fail(sqlite3 *native, const char *doing)
{
  const char *path = sqlite3_db_filename(native, "main");
  fail(native, path != nullptr ? path : "a store", doing);
}

const char *pragmas(database::mode how)
{
  switch (how) {
  case database::mode::read_only:
    return "PRAGMA trusted_schema=OFF";
  case database::mode::create:
    // In smaller pages each line of 1000 bytes would fill an overflow page of its own.
    return "PRAGMA page_size=8192; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA trusted_schema=OFF";
  case database::mode::read_write:
    break;
  }
  // Checkpoints are the upkeep's: none may lengthen a hook.
  return "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA wal_autocheckpoint=0;"
         "PRAGMA journal_size_limit=67108864; PRAGMA cache_size=-16000; PRAGMA trusted_schema=OFF";
}

}  // namespace

bool store_failure::is_interruption() const
{
  return code_ == SQLITE_INTERRUPT;
}

bool store_failure::is_damage() const
{
  return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB || code_ == SQLITE_ERROR || code_ == SQLITE_FORMAT;
}

void statement::finalizer::operator()(sqlite3_stmt *native) const
{
  sqlite3_finalize(native);
}

statement::statement(database &in, const char *sql)
{
  sqlite3_stmt *native = nullptr;
  if (sqlite3_prepare_v3(in.native(), sql, -1, SQLITE_PREPARE_PERSISTENT, &native, nullptr) != SQLITE_OK) {
    fail(in.native(), sql);
  }
  native_.reset(native);
}

query::~query()
{
  sqlite3_reset(native_);
  sqlite3_clear_bindings(native_);
}

void query::check(int result) const
{
  if (result != SQLITE_OK) {
    fail(sqlite3_db_handle(native_), sqlite3_sql(native_));
  }
}

bool query::next()
{
  const int result = sqlite3_step(native_);
  if (result != SQLITE_ROW && result != SQLITE_DONE) {
    check(result);
  }
  return result == SQLITE_ROW;
}

uint64_t query::number(int column) const
{
  return static_cast<uint64_t>(sqlite3_column_int64(native_, column));
}

std::string_view query::bytes(int column) const
{
  const auto *bytes = static_cast<const char *>(sqlite3_column_blob(native_, column));
  return {bytes, static_cast<size_t>(sqlite3_column_bytes(native_, column))};
}

void query::bind_number(int index, int64_t value)
{
  check(sqlite3_bind_int64(native_, index, value));
}

// A null pointer would make a NULL, not an empty value.
void query::bind(int index, std::string_view value)
{
  check(sqlite3_bind_blob64(native_, index, value.empty() ? "" : value.data(), value.size(), SQLITE_STATIC));
}

void query::bind(int index, as_text value)
{
  const char *text = value.value.empty() ? "" : value.value.data();
  check(sqlite3_bind_text64(native_, index, text, value.value.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void database::closer::operator()(sqlite3 *native) const
{
  sqlite3_close(native);
}

database::database(const std::string &path, mode how)
{
  const int flags = how == mode::read_only    ? SQLITE_OPEN_READONLY
                    : how == mode::read_write ? SQLITE_OPEN_READWRITE
                                              : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  sqlite3 *native = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &native, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  native_.reset(native);
  if (native == nullptr) {
    throw store_failure(path + ": no memory to open it");
  }
  if (result != SQLITE_OK) {
    fail(native, path, "open");
  }
  sqlite3_busy_timeout(native, STORE_BUSY_WAIT_MS);
  run(pragmas(how));
  begin_ = statement(*this, how == mode::read_only ? "BEGIN" : "BEGIN IMMEDIATE");
  commit_ = statement(*this, "COMMIT");
  rollback_ = statement(*this, "ROLLBACK");
}

void database::close()
{
  begin_ = {};
  commit_ = {};
  rollback_ = {};
  native_.reset();
}

void database::run(const char *sql)
{
  if (sqlite3_exec(native_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(native_.get(), sql);
  }
}

uint64_t database::number(const char *sql)
{
  statement prepared(*this, sql);
  query one(prepared);
  return one.next() ? one.number(0) : 0;
}

transaction::transaction(database &in) : in_(in)
{
  query(in_.begin_).run();
}

transaction::~transaction()
{
  if (is_open_ && sqlite3_get_autocommit(in_.native()) == 0) {
    try {
      query(in_.rollback_).run();
    } catch (const store_failure &) {
      // The connection keeps the transaction; the next BEGIN fails.
    }
  }
}

void transaction::commit()
{
  query(in_.commit_).run();
  is_open_ = false;
}

}  // namespace kesh
