#include "store/state.h"

#include "bytes.h"
#include "store/database.h"

namespace kesh
{

namespace
{

constexpr size_t HASH_SIZE = std::tuple_size_v<chain_hash>;

[[noreturn]] void refuse(const std::string &why)
{
  throw store_failure("the state of the cluster cannot be used: " + why);
}

void demand(bool holds, const char *why)
{
  if (!holds) {
    refuse(why);
  }
}

chain_hash read_hash(byte_reader &reader)
{
  chain_hash hash{};
  hash_assign(hash, reader.bytes(HASH_SIZE));
  return hash;
}

std::string_view check_sum(std::string_view bytes)
{
  demand(bytes.size() > STATE_MAGIC.size() + HASH_SIZE && bytes.substr(0, STATE_MAGIC.size()) == STATE_MAGIC,
         "it is none of this build");
  const std::string_view checked = bytes.substr(0, bytes.size() - HASH_SIZE);
  hasher hash;
  hash.add(checked);
  demand(hash_bytes(hash.finish()) == bytes.substr(checked.size()), "its checksum is wrong");
  return checked.substr(STATE_MAGIC.size());
}

void read_head(byte_reader &reader, store_state &to)
{
  demand(reader.le<uint8_t>() == STATE_VERSION, "it has another version");
  to.identity = reader.bytes(reader.le<uint32_t>());
  to.n = reader.le<uint64_t>();
  to.hash = read_hash(reader);
  to.lines = reader.le<uint64_t>();
  to.base_n = reader.le<uint64_t>();
  to.base_hash = read_hash(reader);
  to.base_lines = reader.le<uint64_t>();
  to.bare_n = reader.le<uint64_t>();
  demand(reader.ok() && to.base_n <= to.bare_n && to.bare_n <= to.n &&
             to.n - to.base_n <= reader.left() / STATE_ROW_SIZE,
         "its numbers do not fit");
}

void read_row(byte_reader &reader, state_row &to)
{
  to.row.hash = read_hash(reader);
  to.row.after = library_entry_get(reader);
  to.row.origin = reader.le<uint8_t>();
  to.row.life = reader.le<uint64_t>();
  to.row.lines = reader.le<uint32_t>();
  to.row.size = reader.le<uint32_t>();
  if (to.row.size == 0) {
    return;
  }
  to.payload = reader.bytes(to.row.size);
  const uint32_t repeats = reader.le<uint32_t>();
  demand(reader.ok() && repeats <= reader.left() / STATE_REPEAT_SIZE, "a row is cut");
  for (uint32_t i = 0; i < repeats; ++i) {
    const uint32_t position = reader.le<uint32_t>();
    to.repeats.emplace_back(position, reader.le<uint64_t>());
  }
}

/// `decoded` is only room that is used again.
void check_payload(state_row &one, const chain_hash &before, payload &decoded)
{
  std::string fault;
  if (!payload_decode(one.payload, decoded, fault)) {
    refuse("payload " + std::to_string(one.row.n) + ": " + fault);
  }
  demand(chain_next(before, one.payload) == one.row.hash, "the chain breaks");
  demand(decoded.origin == one.row.origin && decoded.life == one.row.life, "a row and its payload differ");
  for (size_t i = 0; i < one.repeats.size(); ++i) {
    demand(one.repeats[i].first < decoded.items.size() && (i == 0 || one.repeats[i - 1].first < one.repeats[i].first),
           "a repeat has no item");
  }
  one.row.items = decoded.items.size();
  uint64_t lines = 0;
  for (const item_outcome &result : state_row_results(one, decoded)) {
    lines += !result.is_repeat && result.line != 0 ? 1 : 0;
  }
  demand(lines == one.row.lines, "a row has another number of lines than its payload");
}

void read_rows(byte_reader &reader, store_state &to)
{
  chain_hash before = to.base_hash;
  uint64_t lines = to.base_lines;
  payload decoded;
  to.rows.resize(to.n - to.base_n);
  for (size_t i = 0; i < to.rows.size(); ++i) {
    state_row &one = to.rows[i];
    one.row.n = to.base_n + 1 + i;
    one.row.first_line = lines + 1;
    read_row(reader, one);
    demand(reader.ok() && one.row.origin >= 1 && one.row.origin <= ORIGIN_MAX, "a row is cut or has no origin");
    demand(one.payload.empty() == (one.row.n <= to.bare_n), "the bare rows are not the oldest ones");
    if (!one.payload.empty()) {
      check_payload(one, before, decoded);
    }
    before = one.row.hash;
    lines += one.row.lines;
  }
  demand(before == to.hash && lines == to.lines, "its rows do not lead to its end");
}

void read_window(byte_reader &reader, store_state &to)
{
  const uint32_t count = reader.le<uint32_t>();
  demand(reader.ok() && count <= ORIGIN_MAX * tag_window::PAYLOADS_PER_ORIGIN, "its window is too large");
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t origin = reader.le<uint8_t>();
    window_payload one;
    one.n = reader.le<uint64_t>();
    one.life = reader.le<uint64_t>();
    const uint64_t tags = reader.le<uint32_t>();
    demand(one.unpack(reader.bytes(tags * 16)) && reader.ok() && origin >= 1 && origin <= ORIGIN_MAX && one.n <= to.n,
           "its window is cut");
    to.window.emplace_back(origin, std::move(one));
  }
}

}  // namespace

std::optional<chain_hash> store_state::hash_at(uint64_t at) const
{
  if (at < base_n || at > n) {
    return std::nullopt;
  }
  return at == base_n ? base_hash : rows[at - base_n - 1].row.hash;
}

void state_decode(std::string bytes, store_state &to)
{
  to.bytes = std::move(bytes);
  byte_reader reader(check_sum(to.bytes));
  read_head(reader, to);
  read_rows(reader, to);
  read_window(reader, to);
  demand(reader.left() == 0, "bytes follow its end");
}

std::vector<item_outcome> state_row_results(const state_row &of, const payload &decoded)
{
  std::vector<item_outcome> results;
  results.reserve(decoded.items.size());
  uint64_t line = of.row.first_line;
  size_t repeat = 0;
  for (size_t i = 0; i < decoded.items.size(); ++i) {
    const item &one = decoded.items[i];
    item_outcome result{.sequence = one.sequence, .attempt = one.attempt, .line = 0, .is_repeat = false};
    if (repeat < of.repeats.size() && of.repeats[repeat].first == i) {
      result.is_repeat = true;
      result.line = of.repeats[repeat++].second;
    } else if (one.kind == item_kind::line) {
      result.line = line++;
    }
    results.push_back(result);
  }
  return results;
}

}  // namespace kesh
