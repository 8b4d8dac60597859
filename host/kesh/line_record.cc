#include "line_record.h"

#include "bytes.h"
#include "checksum.h"

namespace kesh
{

namespace
{

constexpr std::string_view MAGIC = "KJL1";
constexpr size_t HEADER_SIZE = 4 + 1 + 8 + 8 + 4;
constexpr size_t CHECKSUM_SIZE = 4;
constexpr uint8_t ORIGIN_MAX = 16;

}  // namespace

std::string line_record_encode(const journal_line &line)
{
  std::string bytes;
  bytes.reserve(HEADER_SIZE + line.text.size() + CHECKSUM_SIZE);
  bytes += MAGIC;
  put_le(bytes, line.tag.origin);
  put_le(bytes, line.tag.life);
  put_le(bytes, line.tag.sequence);
  put_le(bytes, line.attempt);
  bytes += line.text;
  put_le(bytes, crc32_of(bytes));
  return bytes;
}

bool line_record_decode(std::string_view bytes, journal_line &line)
{
  if (bytes.size() < HEADER_SIZE + CHECKSUM_SIZE || bytes.substr(0, MAGIC.size()) != MAGIC) {
    return false;
  }
  const std::string_view checked = bytes.substr(0, bytes.size() - CHECKSUM_SIZE);
  if (byte_reader(bytes.substr(checked.size())).le<uint32_t>() != crc32_of(checked)) {
    return false;
  }
  byte_reader reader(checked.substr(MAGIC.size()));
  journal_line result;
  result.tag.origin = reader.le<uint8_t>();
  result.tag.life = reader.le<uint64_t>();
  result.tag.sequence = reader.le<uint64_t>();
  result.attempt = reader.le<uint32_t>();
  result.text = reader.bytes(reader.left());
  if (result.tag.origin == 0 || result.tag.origin > ORIGIN_MAX || result.tag.sequence == 0 || result.attempt == 0) {
    return false;
  }
  line = result;
  return true;
}

uint64_t line_hash(uint64_t before, const journal_line &line)
{
  std::string head;
  put_le(head, line.tag.origin);
  put_le(head, line.tag.life);
  put_le(head, line.tag.sequence);
  put_le(head, line.attempt);
  put_le(head, static_cast<uint64_t>(line.text.size()));
  return hash_continue(hash_continue(before, head), line.text);
}

}  // namespace kesh
