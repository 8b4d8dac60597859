#include "config_key.h"

#include <charconv>

namespace platform
{
namespace
{

constexpr std::string_view YES = "yes, true, on, 1";
constexpr std::string_view NO = "no, false, off, 0";

bool is_word_of(std::string_view words, std::string_view word)
{
  constexpr std::string_view BETWEEN = ", ";
  while (!words.empty()) {
    const size_t end = words.find(BETWEEN);
    if (words.substr(0, end) == word) {
      return true;
    }
    words.remove_prefix(end == std::string_view::npos ? words.size() : end + BETWEEN.size());
  }
  return false;
}

bool is_number_of(const config_key &key, std::string_view text)
{
  int64_t number = 0;
  const auto [end, result] = std::from_chars(text.data(), text.data() + text.size(), number);
  return result == std::errc() && end == text.data() + text.size() && number >= key.low && number <= key.high;
}

bool takes(const config_key &key, std::string_view value)
{
  switch (key.kind) {
  case config_kind::number:
    return is_number_of(key, value);
  case config_kind::toggle:
    return config_toggle_value(value).has_value();
  case config_kind::choice:
    return is_word_of(key.words, value);
  case config_kind::text:
    break;
  }
  return key.accepts == nullptr || key.accepts(value);
}

}  // namespace

std::optional<bool> config_toggle_value(std::string_view text)
{
  const bool is_on = is_word_of(YES, text);
  return is_on || is_word_of(NO, text) ? std::optional<bool>(is_on) : std::nullopt;
}

std::string config_allowed(const config_key &key)
{
  switch (key.kind) {
  case config_kind::number:
    return "a whole number" + (key.unit.empty() ? "" : " of " + std::string(key.unit)) + " from " +
           std::to_string(key.low) + " to " + std::to_string(key.high);
  case config_kind::toggle:
    return "one of " + std::string(YES) + ", " + std::string(NO);
  case config_kind::choice:
    return "one of " + std::string(key.words);
  case config_kind::text:
    break;
  }
  return std::string(key.form);
}

std::string config_fault(const config_key &key, std::string_view value)
{
  return takes(key, value) ? "" : config_shown(value) + " is not " + config_allowed(key);
}

std::string config_shown(std::string_view value)
{
  constexpr size_t SHOWN_MAX = 80;
  static const char digits[] = "0123456789abcdef";
  std::string text = "\"";
  for (const char letter : value.substr(0, SHOWN_MAX)) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte < 0x20 || byte >= 0x7f) {
      text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    } else {
      text += letter;
    }
  }
  return text + (value.size() > SHOWN_MAX ? "..\"" : "\"");
}

}  // namespace platform
