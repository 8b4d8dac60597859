#include "base_record.h"

#include <charconv>
#include <cstdio>

#include "journal.h"

namespace kesh
{

namespace
{

std::string to_hex(std::string_view bytes)
{
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    text += hex_text(static_cast<uint8_t>(byte), 2);
  }
  return text;
}

bool from_hex(std::string_view text, std::string &bytes)
{
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    uint8_t byte = 0;
    const auto result = std::from_chars(&text[i], &text[i] + 2, byte, 16);
    if (result.ec != std::errc() || result.ptr != &text[i] + 2) {
      return false;
    }
    bytes += static_cast<char>(byte);
  }
  return text.size() % 2 == 0;
}

}  // namespace

void base_record_append(std::string &to, uint64_t lines, uint64_t hash, const journal_status &status,
                        const tag_index &tags)
{
  std::string index;
  tags.encode(index);
  const std::string text = std::to_string(status.repeated) + ' ' + std::to_string(status.doubled) + ' ' +
                           std::to_string(status.redelivered) + ' ' + to_hex(index);
  file_record_append(to, record_kind::base, lines, hash, {{}, 0, text});
}

bool base_record_apply(const file_record &record, journal_status &status, tag_index &tags)
{
  unsigned long long counters[3];
  int length = 0;
  if (sscanf(record.text.c_str(), "%llu %llu %llu %n", &counters[0], &counters[1], &counters[2], &length) != 3) {
    return false;
  }
  std::string index;
  if (!from_hex(std::string_view(record.text).substr(static_cast<size_t>(length)), index) || !tags.decode(index)) {
    return false;
  }
  status.lines = record.number;
  status.hash = record.hash;
  status.first_line = record.number + 1;
  status.repeated = counters[0];
  status.doubled = counters[1];
  status.redelivered = counters[2];
  return true;
}

}  // namespace kesh
