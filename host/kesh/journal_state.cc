#include "journal_state.h"

#include <cstdlib>
#include <cstring>

#include "bytes.h"
#include "checksum.h"

namespace kesh
{

namespace
{

constexpr std::string_view MAGIC = "KJS1";
constexpr size_t LINE_HEADER_SIZE = 1 + 8 + 8 + 4 + 4;
constexpr size_t CHECKSUM_SIZE = 4;

void put_bytes(uint8_t *&to, std::string_view bytes)
{
  memcpy(to, bytes.data(), bytes.size());
  to += bytes.size();
}

void put_lines(uint8_t *&to, const std::deque<kept_line> &lines)
{
  std::string header;
  for (const kept_line &line : lines) {
    header.clear();
    put_le(header, line.tag.origin);
    put_le(header, line.tag.life);
    put_le(header, line.tag.sequence);
    put_le(header, line.attempt);
    put_le(header, static_cast<uint32_t>(line.text.size()));
    put_bytes(to, header);
    put_bytes(to, line.text);
  }
}

}  // namespace

size_t journal_state_line_size(size_t text_size)
{
  return LINE_HEADER_SIZE + text_size;
}

bool journal_state_encode(uint64_t lines, uint64_t hash, uint64_t base_hash, const tag_index &tags,
                          const std::deque<kept_line> &last, uint8_t **bytes, uint32_t *size)
{
  std::string index;
  tags.encode(index);
  std::string head(MAGIC);
  put_le(head, lines);
  put_le(head, hash);
  put_le(head, base_hash);
  put_le(head, static_cast<uint32_t>(index.size()));
  head += index;
  put_le(head, static_cast<uint32_t>(last.size()));

  uint64_t total = head.size() + CHECKSUM_SIZE;
  for (const kept_line &line : last) {
    total += journal_state_line_size(line.text.size());
  }
  auto *buffer = total > UINT32_MAX ? nullptr : static_cast<uint8_t *>(malloc(total));
  if (buffer == nullptr) {
    return false;
  }
  uint8_t *to = buffer;
  put_bytes(to, head);
  put_lines(to, last);
  std::string checksum;
  put_le(checksum, crc32_of({reinterpret_cast<const char *>(buffer), static_cast<size_t>(to - buffer)}));
  put_bytes(to, checksum);
  *bytes = buffer;
  *size = static_cast<uint32_t>(total);
  return true;
}

bool journal_state_decode(std::string_view bytes, journal_state &state)
{
  if (bytes.size() < MAGIC.size() + CHECKSUM_SIZE || bytes.substr(0, MAGIC.size()) != MAGIC) {
    return false;
  }
  const std::string_view checked = bytes.substr(0, bytes.size() - CHECKSUM_SIZE);
  if (byte_reader(bytes.substr(checked.size())).le<uint32_t>() != crc32_of(checked)) {
    return false;
  }
  byte_reader reader(checked.substr(MAGIC.size()));
  state.lines = reader.le<uint64_t>();
  state.hash = reader.le<uint64_t>();
  state.base_hash = reader.le<uint64_t>();
  const uint32_t index_size = reader.le<uint32_t>();
  if (!state.tags.decode(reader.bytes(index_size))) {
    return false;
  }
  const uint32_t count = reader.le<uint32_t>();
  uint64_t hash = state.base_hash;
  state.last.clear();
  for (uint32_t i = 0; i < count && reader.ok(); i++) {
    journal_line line;
    line.tag.origin = reader.le<uint8_t>();
    line.tag.life = reader.le<uint64_t>();
    line.tag.sequence = reader.le<uint64_t>();
    line.attempt = reader.le<uint32_t>();
    line.text = reader.bytes(reader.le<uint32_t>());
    hash = line_hash(hash, line);
    state.last.push_back(line);
  }
  return reader.ok() && reader.left() == 0 && count <= state.lines && hash == state.hash;
}

}  // namespace kesh
