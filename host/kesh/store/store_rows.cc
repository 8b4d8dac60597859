#include "store/store_rows.h"

#include "store/store_schema.h"

namespace kesh
{

namespace
{

#define PAYLOAD_COLUMNS "n, hash, after, origin, life, first_line, lines, items, size, at"
#define ITEM_COLUMNS "n, kind, sequence, attempt, line, is_repeat, text"

payload_row read_payload(const query &from)
{
  payload_row row;
  row.n = from.number(0);
  row.after = library_entry_get(from.bytes(2));
  row.origin = static_cast<uint8_t>(from.number(3));
  row.life = from.number(4);
  row.first_line = from.number(5);
  row.lines = from.number(6);
  row.items = from.number(7);
  row.size = from.number(8);
  row.at = static_cast<int64_t>(from.number(9));
  if (!hash_assign(row.hash, from.bytes(1)) || row.origin == 0 || row.origin > ORIGIN_MAX) {
    throw damaged("row " + std::to_string(row.n) + " of the table payload has a bad hash or origin");
  }
  return row;
}

item_row read_item(const query &from)
{
  item_row row;
  row.n = from.number(0);
  row.what.kind = static_cast<item_kind>(from.number(1));
  row.what.sequence = from.number(2);
  row.what.attempt = static_cast<uint32_t>(from.number(3));
  row.line = from.number(4);
  row.is_repeat = from.number(5) != 0;
  row.what.bytes = from.bytes(6);
  return row;
}

}  // namespace

store_rows::store_rows(database &in)
    : add_(in, "INSERT INTO payload (" PAYLOAD_COLUMNS ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      add_item_(in, "INSERT INTO item (n, position, kind, sequence, attempt, line, is_repeat, text)"
                    " VALUES (?, ?, ?, ?, ?, ?, ?, ?)"),
      set_after_(in, "UPDATE payload SET after = ? WHERE n = ?"),
      find_(in, "SELECT " PAYLOAD_COLUMNS " FROM payload WHERE n = ?"),
      find_after_(in, "SELECT n FROM payload WHERE after = ? ORDER BY n DESC LIMIT 1"),
      items_(in, "SELECT " ITEM_COLUMNS " FROM item WHERE n = ? ORDER BY position"),
      remove_(in, "DELETE FROM payload WHERE n <= ?"), remove_items_(in, "DELETE FROM item WHERE n <= ?"),
      window_put_(in, "INSERT OR REPLACE INTO window (origin, n, life, tags) VALUES (?, ?, ?, ?)"),
      window_remove_(in, "DELETE FROM window WHERE origin = ? AND n = ?"), window_clear_(in, "DELETE FROM window")
{
}

void store_rows::add(const payload_row &row)
{
  const std::string after = library_entry_bytes(row.after);
  query(add_, row.n, hash_bytes(row.hash), std::string_view(after), row.origin, row.life, row.first_line, row.lines,
        row.items, row.size, row.at)
      .run();
}

void store_rows::add_item(uint64_t n, uint64_t position, const item &one, const item_outcome &result)
{
  query(add_item_, n, position, static_cast<uint8_t>(one.kind), one.sequence, one.attempt, result.line,
        result.is_repeat ? 1 : 0, one.bytes)
      .run();
}

void store_rows::set_after(uint64_t n, const library_entry &after)
{
  const std::string bytes = library_entry_bytes(after);
  query(set_after_, std::string_view(bytes), n).run();
}

std::optional<payload_row> store_rows::find(uint64_t n)
{
  query one(find_, n);
  return one.next() ? std::optional(read_payload(one)) : std::nullopt;
}

std::optional<uint64_t> store_rows::find_after(const library_entry &after)
{
  const std::string bytes = library_entry_bytes(after);
  query one(find_after_, std::string_view(bytes));
  return one.next() ? std::optional(one.number(0)) : std::nullopt;
}

std::vector<item_outcome> store_rows::results(uint64_t n)
{
  std::vector<item_outcome> result;
  query items(items_, n);
  while (items.next()) {
    const item_row row = read_item(items);
    result.push_back({row.what.sequence, row.what.attempt, row.line, row.is_repeat});
  }
  return result;
}

window_payload store_rows::tags(uint64_t n, uint64_t life)
{
  window_payload result{.n = n, .life = life, .tags = {}};
  for (const item_outcome &one : results(n)) {
    result.tags.push_back({one.sequence, one.line});
  }
  result.sort();
  return result;
}

void store_rows::remove_up_to(uint64_t n)
{
  query(remove_items_, n).run();
  query(remove_, n).run();
}

void store_rows::window_put(uint8_t origin, const window_payload &one)
{
  const std::string tags = one.pack();
  query(window_put_, origin, one.n, one.life, std::string_view(tags)).run();
}

void store_rows::window_remove(uint8_t origin, uint64_t n)
{
  query(window_remove_, origin, n).run();
}

void store_rows::window_clear()
{
  query(window_clear_).run();
}

row_walk::row_walk(database &in, uint64_t n, uint64_t item_n)
    : select_payloads_(in, "SELECT " PAYLOAD_COLUMNS " FROM payload WHERE n > ? ORDER BY n"),
      select_items_(in, "SELECT " ITEM_COLUMNS " FROM item WHERE n > ? ORDER BY n, position"),
      payloads_(select_payloads_, n), items_(select_items_, item_n), is_at_item_(items_.next())
{
}

bool row_walk::next_payload(payload_row &row)
{
  const bool is_row = payloads_.next();
  if (is_row) {
    row = read_payload(payloads_);
  }
  return is_row;
}

// The statement always stands at the next item, so its bytes stay valid until this is called again.
bool row_walk::next_item(uint64_t n, item_row &row)
{
  if (has_shown_) {
    is_at_item_ = items_.next();
    has_shown_ = false;
  }
  if (!is_at_item_ || items_.number(0) != n) {
    return false;
  }
  row = read_item(items_);
  has_shown_ = true;
  return true;
}

}  // namespace kesh
