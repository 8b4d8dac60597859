/// SQLite, owned: a connection, its prepared statements, a transaction. Whoever uses one locks around it.
/// Every failure is thrown as a store_failure that names the file, what was being done, and SQLite's reason.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace kesh
{

/// Another process, an operator's query, may hold the file for a moment.
inline constexpr int STORE_BUSY_WAIT_MS = 10000;

class store_failure : public std::runtime_error
{
public:
  explicit store_failure(const std::string &what, int code = 0) : std::runtime_error(what), code_(code) {}
  /// Whether the content of the file is at fault, not the disk, the memory or another process.
  bool is_damage() const;
  /// Whether the work was given up on demand.
  bool is_interruption() const;

private:
  int code_;  // SQLite's primary result code; 0: the failure is not SQLite's
};

/// The file is well, but not for this daemon: somebody else's, in use, of a newer build, or an operator has to end
/// first what was begun. Trying again does not help.
class store_unsuited : public store_failure
{
public:
  using store_failure::store_failure;
};

class database;

/// Prepared once, used many times.
class statement
{
public:
  statement() = default;
  statement(database &in, const char *sql);

private:
  friend class query;
  struct finalizer {
    void operator()(sqlite3_stmt *native) const;
  };
  std::unique_ptr<sqlite3_stmt, finalizer> native_;
};

/// Marks a text that becomes TEXT; other byte strings become BLOBs.
struct as_text {
  std::string_view value;
};

/// One use of a statement: binds its parameters, hands out rows, and resets it at the end. Bytes that are bound must
/// outlive it.
class query
{
public:
  template <typename... values>
  explicit query(statement &of, const values &...bound) : native_(of.native_.get())
  {
    [[maybe_unused]] int index = 0;
    (bind(++index, bound), ...);
  }
  ~query();
  query(const query &) = delete;
  query &operator=(const query &) = delete;

  /// Goes to the next row. False behind the last one.
  bool next();
  /// For statements that give no rows.
  void run() { next(); }

  uint64_t number(int column) const;
  /// Of a BLOB or a TEXT; valid until next().
  std::string_view bytes(int column) const;

private:
  template <std::integral number_type>
  void bind(int index, number_type value)
  {
    bind_number(index, static_cast<int64_t>(value));
  }
  void bind(int index, std::string_view value);
  void bind(int index, as_text value);
  void bind_number(int index, int64_t value);
  void check(int result) const;

  sqlite3_stmt *native_;
};

class database
{
public:
  enum class mode {
    read_only,
    read_write,
    create,  ///< a new file, without any safety until it is closed and synced
  };

  database() = default;
  database(const std::string &path, mode how);

  bool is_open() const { return native_ != nullptr; }
  /// All statements that were prepared in it must be gone.
  void close();
  void run(const char *sql);
  /// The first column of the first row; 0 without a row.
  uint64_t number(const char *sql);
  sqlite3 *native() const { return native_.get(); }

private:
  friend class transaction;
  struct closer {
    void operator()(sqlite3 *native) const;
  };
  std::unique_ptr<sqlite3, closer> native_;
  statement begin_;
  statement commit_;
  statement rollback_;
};

/// Writes that become visible, and durable, all at once with commit(), or not at all.
class transaction
{
public:
  explicit transaction(database &in);
  ~transaction();
  transaction(const transaction &) = delete;
  transaction &operator=(const transaction &) = delete;
  void commit();

private:
  database &in_;
  bool is_open_ = true;
};

}  // namespace kesh
