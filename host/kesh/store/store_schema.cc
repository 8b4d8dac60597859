#include "store/store_schema.h"

#include <sqlite3.h>

namespace kesh
{

namespace
{

constexpr const char *TABLES =
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value) WITHOUT ROWID;"
    "CREATE TABLE payload (n INTEGER PRIMARY KEY, hash BLOB NOT NULL, after BLOB NOT NULL, origin INTEGER NOT NULL,"
    " life INTEGER NOT NULL, first_line INTEGER NOT NULL, lines INTEGER NOT NULL, items INTEGER NOT NULL,"
    " size INTEGER NOT NULL, at INTEGER NOT NULL);"
    "CREATE INDEX payload_first_line ON payload (first_line);"
    "CREATE TABLE item (n INTEGER NOT NULL, position INTEGER NOT NULL, kind INTEGER NOT NULL, sequence INTEGER NOT "
    "NULL,"
    " attempt INTEGER NOT NULL, line INTEGER NOT NULL, is_repeat INTEGER NOT NULL, text BLOB NOT NULL,"
    " PRIMARY KEY (n, position)) WITHOUT ROWID;"
    "CREATE TABLE window (origin INTEGER NOT NULL, n INTEGER NOT NULL, life INTEGER NOT NULL, tags BLOB NOT NULL,"
    " PRIMARY KEY (origin, n)) WITHOUT ROWID;";

/// Reads one value of the table meta.
class meta_reader
{
public:
  explicit meta_reader(database &in) : select_(in, "SELECT value FROM meta WHERE key = ?") {}

  uint64_t number(std::string_view key)
  {
    query one(select_, as_text{key});
    demand(one, key);
    return one.number(0);
  }
  std::string text(std::string_view key)
  {
    query one(select_, as_text{key});
    demand(one, key);
    return std::string(one.bytes(0));
  }

  std::string text_or_none(std::string_view key)
  {
    query one(select_, as_text{key});
    return one.next() ? std::string(one.bytes(0)) : std::string();
  }

private:
  static void demand(query &one, std::string_view key)
  {
    if (!one.next()) {
      throw damaged("the table meta lacks " + std::string(key));
    }
  }

  statement select_;
};

}  // namespace

store_failure damaged(const std::string &what)
{
  return store_failure(what, SQLITE_CORRUPT);
}

void schema_create(database &in)
{
  in.run(TABLES);
  in.run(("PRAGMA application_id=" + std::to_string(STORE_APPLICATION_ID)).c_str());
  in.run(("PRAGMA user_version=" + std::to_string(STORE_SCHEMA_VERSION)).c_str());
}

void schema_check_version(database &in)
{
  const uint64_t version = in.number("PRAGMA user_version");
  if (version > STORE_SCHEMA_VERSION) {
    throw store_unsuited("the store has version " + std::to_string(version) + " and this build knows " +
                         std::to_string(STORE_SCHEMA_VERSION) + ": use the newer build");
  }
}

void schema_quick_check(database &in)
{
  statement prepared(in, "PRAGMA quick_check(1)");
  query one(prepared);
  const std::string verdict(one.next() ? one.bytes(0) : "no answer");
  if (verdict != "ok") {
    throw damaged("quick_check: " + verdict);
  }
}

store_meta meta_read(database &in)
{
  meta_reader from(in);
  store_meta meta;
  meta.identity = from.text("identity");
  meta.incomplete = from.text("incomplete");
  meta.damaged = from.text_or_none("damaged");
  meta.differs_at = from.number("differs_at");
  meta.base_n = from.number("base_n");
  meta.base_lines = from.number("base_lines");
  meta.bare_n = from.number("bare_n");
  meta.has_state = from.number("has_state") != 0;
  meta.state_n = from.number("state_n");
  meta.state_after = library_entry_get(from.text("state_after"));
  meta.state_entry = library_entry_get(from.text("state_entry"));
  if (const std::string entry = from.text("taken_over"); !entry.empty()) {
    meta.taken_over = library_entry_get(entry);
  }
  if (!hash_assign(meta.base_hash, from.text("base_hash"))) {
    throw damaged("base_hash in the table meta is no hash");
  }
  return meta;
}

void meta_write(database &in, const store_meta &meta)
{
  statement put(in, "INSERT OR REPLACE INTO meta (key, value) VALUES (?, ?)");
  const auto number = [&put](std::string_view key, uint64_t value) { query(put, as_text{key}, value).run(); };
  const auto bytes = [&put](std::string_view key, std::string_view value) { query(put, as_text{key}, value).run(); };
  query(put, as_text{"identity"}, as_text{meta.identity}).run();
  query(put, as_text{"incomplete"}, as_text{meta.incomplete}).run();
  if (!meta.damaged.empty()) {
    query(put, as_text{"damaged"}, as_text{meta.damaged}).run();
  }
  number("differs_at", meta.differs_at);
  number("base_n", meta.base_n);
  bytes("base_hash", hash_bytes(meta.base_hash));
  number("base_lines", meta.base_lines);
  number("bare_n", meta.bare_n);
  number("has_state", meta.has_state ? 1 : 0);
  number("state_n", meta.state_n);
  bytes("state_after", library_entry_bytes(meta.state_after));
  bytes("state_entry", library_entry_bytes(meta.state_entry));
  bytes("taken_over", meta.taken_over ? library_entry_bytes(*meta.taken_over) : std::string());
}

}  // namespace kesh
