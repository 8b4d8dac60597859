#include "file_record.h"

#include <algorithm>
#include <charconv>

#include "checksum.h"

namespace kesh
{

namespace
{

constexpr char DIGITS[] = "0123456789abcdef";

/// Cuts the next word, up to a space, off the front.
std::string_view next_word(std::string_view &from)
{
  const size_t end = from.find(' ');
  const std::string_view word = from.substr(0, end);
  from.remove_prefix(end == std::string_view::npos ? from.size() : end + 1);
  return word;
}

template <typename number>
bool read_number(std::string_view word, int base, number &value)
{
  const char *end = word.data() + word.size();
  const auto result = std::from_chars(word.data(), end, value, base);
  return !word.empty() && result.ec == std::errc() && result.ptr == end;
}

bool read_tag(std::string_view word, line_tag &tag)
{
  const size_t first = word.find('.');
  const size_t second = word.find('.', first == std::string_view::npos ? first : first + 1);
  return second != std::string_view::npos && read_number(word.substr(0, first), 10, tag.origin) &&
         read_number(word.substr(first + 1, second - first - 1), 16, tag.life) &&
         read_number(word.substr(second + 1), 10, tag.sequence);
}

bool read_kind(std::string_view word, record_kind &kind)
{
  if (word.size() != 1 || std::string_view("LRDAS").find(word[0]) == std::string_view::npos) {
    return false;
  }
  kind = static_cast<record_kind>(word[0]);
  return true;
}

}  // namespace

std::string hex_text(uint64_t value, int digits)
{
  std::string text(static_cast<size_t>(digits), '0');
  for (size_t i = text.size(); i > 0; i--, value >>= 4) {
    text[i - 1] = DIGITS[value & 0xf];
  }
  return text;
}

std::string tag_text(const line_tag &tag)
{
  return std::to_string(tag.origin) + '.' + hex_text(tag.life, 16) + '.' + std::to_string(tag.sequence);
}

void text_escape(std::string &to, std::string_view text)
{
  const auto is_plain = [](char byte) {
    const auto code = static_cast<uint8_t>(byte);
    return (code >= 0x20 || byte == '\t') && byte != '\\' && code != 0x7f;
  };
  while (!text.empty()) {
    const auto special = std::find_if_not(text.begin(), text.end(), is_plain);
    to.append(text.begin(), special);
    text.remove_prefix(static_cast<size_t>(special - text.begin()));
    if (text.empty()) {
      return;
    }
    if (text[0] == '\\') {
      to += "\\\\";
    } else {
      to += "\\x" + hex_text(static_cast<uint8_t>(text[0]), 2);
    }
    text.remove_prefix(1);
  }
}

bool text_unescape(std::string_view from, std::string &text)
{
  text.clear();
  text.reserve(from.size());
  for (size_t i = 0; i < from.size(); i++) {
    if (from[i] != '\\') {
      text += from[i];
    } else if (i + 1 < from.size() && from[i + 1] == '\\') {
      text += '\\';
      i++;
    } else {
      uint8_t code = 0;
      if (i + 3 >= from.size() || from[i + 1] != 'x' || !read_number(from.substr(i + 2, 2), 16, code)) {
        return false;
      }
      text += static_cast<char>(code);
      i += 3;
    }
  }
  return true;
}

void file_record_append(std::string &to, record_kind kind, uint64_t number, uint64_t hash, const journal_line &line)
{
  const size_t start = to.size();
  to += "00000000 ";
  const size_t checked = to.size();
  to += static_cast<char>(kind);
  to += ' ' + std::to_string(number) + ' ' + hex_text(hash, 16) + ' ' + tag_text(line.tag) + ' ' +
        std::to_string(line.attempt) + ' ';
  text_escape(to, line.text);
  to.replace(start, 8, hex_text(crc32_of(std::string_view(to).substr(checked)), 8));
  to += '\n';
}

bool file_record_parse(std::string_view from, file_record &record)
{
  uint32_t checksum = 0;
  if (!read_number(next_word(from), 16, checksum) || checksum != crc32_of(from)) {
    return false;
  }
  return read_kind(next_word(from), record.kind) && read_number(next_word(from), 10, record.number) &&
         read_number(next_word(from), 16, record.hash) && read_tag(next_word(from), record.tag) &&
         read_number(next_word(from), 10, record.attempt) && text_unescape(from, record.text);
}

}  // namespace kesh
