#include "store/store_reader.h"

namespace kesh
{

std::vector<store_line> store_read_lines(store &of, uint64_t from, size_t lines_max, size_t bytes_max)
{
  const use_scope use(of.gate());
  database own(of.path(), database::mode::read_only);
  return store_read_lines(own, from, lines_max, bytes_max);
}

std::vector<store_line> store_read_lines(database &in, uint64_t from, size_t lines_max, size_t bytes_max)
{
  // A payload without lines has the same first_line as the next one; the last of them has the line.
  statement select(
      in, "SELECT i.line, p.n, p.origin, p.life, i.sequence, i.attempt, p.at, i.text, p.hash, i.position FROM item i"
          " JOIN payload p ON p.n = i.n"
          " WHERE i.n >= (SELECT ifnull(max(n), 0) FROM payload WHERE first_line ="
          "  (SELECT max(first_line) FROM payload WHERE first_line <= ?1))"
          " AND i.kind = 1 AND i.is_repeat = 0 AND i.line >= ?1 ORDER BY i.n, i.position LIMIT ?2");
  query rows(select, from, lines_max);
  std::vector<store_line> lines;
  for (size_t bytes = 0; bytes < bytes_max && rows.next();) {
    store_line one;
    one.line = rows.number(0);
    one.n = rows.number(1);
    one.origin = static_cast<uint8_t>(rows.number(2));
    one.life = rows.number(3);
    one.sequence = rows.number(4);
    one.attempt = static_cast<uint32_t>(rows.number(5));
    one.at = static_cast<int64_t>(rows.number(6));
    one.text = rows.bytes(7);
    chain_hash hash{};
    hash_assign(hash, rows.bytes(8));
    one.key = line_key(hash, rows.number(9));
    bytes += one.text.size();
    lines.push_back(std::move(one));
  }
  return lines;
}

}  // namespace kesh
