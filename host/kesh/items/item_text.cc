#include "items/item_text.h"

#include <algorithm>
#include <charconv>

namespace kesh
{

namespace
{

constexpr char DIGITS[] = "0123456789abcdef";

bool read_byte(std::string_view digits, uint8_t &value)
{
  const char *end = digits.data() + digits.size();
  const auto result = std::from_chars(digits.data(), end, value, 16);
  return result.ec == std::errc() && result.ptr == end;
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

std::string tag_text(uint8_t origin, uint64_t life, uint64_t sequence)
{
  return std::to_string(origin) + '.' + hex_text(life, 16) + '.' + std::to_string(sequence);
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
      if (i + 3 >= from.size() || from[i + 1] != 'x' || !read_byte(from.substr(i + 2, 2), code)) {
        return false;
      }
      text += static_cast<char>(code);
      i += 3;
    }
  }
  return true;
}

}  // namespace kesh
