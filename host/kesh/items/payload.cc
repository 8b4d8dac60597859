#include "items/payload.h"

#include "bytes.h"

namespace kesh
{

namespace
{

constexpr std::string_view MAGIC = "KPL2";

/// Reads item `index`. Returns what is wrong with it, or nothing.
const char *read_item(byte_reader &reader, item &to)
{
  const uint8_t kind = reader.le<uint8_t>();
  to.sequence = reader.le<uint64_t>();
  to.attempt = reader.le<uint32_t>();
  to.bytes = reader.bytes(reader.le<uint32_t>());
  if (!reader.ok()) {
    return "is cut";
  }
  if (kind != static_cast<uint8_t>(item_kind::line) && kind != static_cast<uint8_t>(item_kind::no_op)) {
    return "has an unknown kind";
  }
  to.kind = static_cast<item_kind>(kind);
  if (to.sequence == 0 || to.attempt == 0) {
    return "has no tag";
  }
  return to.kind == item_kind::no_op && !to.bytes.empty() ? "is a no-op with bytes" : nullptr;
}

}  // namespace

size_t payload_size(const payload &from)
{
  size_t size = PAYLOAD_HEADER_SIZE;
  for (const item &one : from.items) {
    size += ITEM_HEADER_SIZE + one.bytes.size();
  }
  return size;
}

void put_payload_head(std::string &to, uint8_t origin, uint64_t life, uint32_t items)
{
  to += MAGIC;
  put_le(to, origin);
  put_le(to, life);
  put_le(to, items);
}

void put_item_head(std::string &to, const item &one)
{
  put_le(to, static_cast<uint8_t>(one.kind));
  put_le(to, one.sequence);
  put_le(to, one.attempt);
  put_le(to, static_cast<uint32_t>(one.bytes.size()));
}

std::string payload_encode(const payload &from)
{
  std::string bytes;
  bytes.reserve(payload_size(from));
  put_payload_head(bytes, from.origin, from.life, static_cast<uint32_t>(from.items.size()));
  for (const item &one : from.items) {
    put_item_head(bytes, one);
    bytes += one.bytes;
  }
  return bytes;
}

bool payload_decode(std::string_view bytes, payload &to, std::string &fault)
{
  to.items.clear();
  if (bytes.size() < PAYLOAD_HEADER_SIZE || bytes.substr(0, MAGIC.size()) != MAGIC) {
    fault = "no payload of this build";
    return false;
  }
  byte_reader reader(bytes.substr(MAGIC.size()));
  to.origin = reader.le<uint8_t>();
  to.life = reader.le<uint64_t>();
  const uint32_t count = reader.le<uint32_t>();
  if (to.origin == 0 || to.origin > ORIGIN_MAX || count == 0 || count > reader.left() / ITEM_HEADER_SIZE) {
    fault = "its origin or its number of items is out of range";
    return false;
  }
  to.items.resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    if (const char *what = read_item(reader, to.items[i])) {
      fault = "item " + std::to_string(i + 1) + " of " + std::to_string(count) + ' ' + what;
      to.items.clear();
      return false;
    }
  }
  if (reader.left() != 0) {
    fault = std::to_string(reader.left()) + " bytes follow the last item";
    to.items.clear();
    return false;
  }
  return true;
}

}  // namespace kesh
