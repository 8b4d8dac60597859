#include "config_file.h"

#include "atomic_file.h"
#include "config_key.h"

#include <algorithm>
#include <utility>

namespace platform
{
namespace
{

constexpr std::string_view BLANKS = " \t\r";
constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";  // some editors put it in front of UTF-8

bool is_blank(char c)
{
  return BLANKS.find(c) != std::string_view::npos;
}
bool is_control(char c)
{
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string_view trimmed(std::string_view text)
{
  const size_t first = text.find_first_not_of(BLANKS);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

int hex_digit(char c)
{
  const std::string_view digits = "0123456789abcdef";
  const size_t at = digits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// Reads one escape; `rest` starts behind the backslash. Null, or why it is bad.
const char *read_escape(std::string_view &rest, std::string &value)
{
  const std::pair<char, char> plain[] = {{'\\', '\\'}, {'"', '"'}, {'n', '\n'}, {'r', '\r'}, {'t', '\t'}};
  if (!rest.empty()) {
    for (const auto &[letter, meaning] : plain) {
      if (rest.front() == letter) {
        value += meaning;
        rest.remove_prefix(1);
        return nullptr;
      }
    }
    if (rest.front() == 'x') {
      const int high = rest.size() > 1 ? hex_digit(rest[1]) : -1;
      const int low = rest.size() > 2 ? hex_digit(rest[2]) : -1;
      if (high < 0 || low < 0) {
        return "\\x needs two hexadecimal digits";
      }
      if (high == 0 && low == 0) {
        return "a value cannot hold the byte 0";
      }
      value += static_cast<char>(high * 16 + low);
      rest.remove_prefix(3);
      return nullptr;
    }
  }
  return "bad escape; known are \\\\ \\\" \\n \\r \\t \\xHH";
}

// `rest` starts at the opening quote, and ends up behind the closing one. Null, or why it is bad.
const char *read_quoted(std::string_view &rest, std::string &value)
{
  rest.remove_prefix(1);
  while (!rest.empty()) {
    const char c = rest.front();
    rest.remove_prefix(1);
    if (c == '"') {
      return nullptr;
    }
    if (c != '\\') {
      value += c;
    } else if (const char *why = read_escape(rest, value)) {
      return why;
    }
  }
  return "the closing quote is missing";
}

std::string_view take_unquoted(std::string_view &rest)
{
  size_t end = 0;
  while (end < rest.size() && !(rest[end] == '#' && (end == 0 || is_blank(rest[end - 1])))) {
    ++end;
  }
  while (end > 0 && is_blank(rest[end - 1])) {
    --end;
  }
  const std::string_view value = rest.substr(0, end);
  rest.remove_prefix(end);
  return value;
}

// Fills key, value and tail from the text. Null, or why it is bad.
const char *read_line(config_line &line)
{
  std::string_view text = line.text;
  if (line.number == 1 && text.starts_with(BYTE_ORDER_MARK)) {
    text.remove_prefix(BYTE_ORDER_MARK.size());
  }
  text = trimmed(text);
  if (text.empty() || text.front() == '#') {
    return nullptr;
  }
  const size_t equals = text.find('=');
  line.key = trimmed(text.substr(0, std::min(equals, text.find_first_of(BLANKS))));
  if (equals == std::string_view::npos) {
    return "no '='";
  }
  line.key = trimmed(text.substr(0, equals));
  if (line.key.empty()) {
    return "no key in front of '='";
  }
  if (!config_key_is_valid(line.key)) {
    return "a key consists of letters, digits and . _ - [ ]";
  }
  std::string_view rest = text.substr(equals + 1);
  rest.remove_prefix(std::min(rest.find_first_not_of(BLANKS), rest.size()));
  if (!rest.empty() && rest.front() == '"') {
    if (const char *why = read_quoted(rest, line.value)) {
      return why;
    }
    const std::string_view behind = trimmed(rest);
    if (!behind.empty() && behind.front() != '#') {
      return "text behind the closing quote";
    }
  } else {
    line.value = take_unquoted(rest);
    if (std::any_of(line.value.begin(), line.value.end(),
                    [](char c) { return is_control(c) && c != '\t' && c != '\0'; })) {
      return "a control character stands in the value; in quotes it may be written as \\xHH";
    }
  }
  if (line.value.find('\0') != std::string::npos) {
    return "a value cannot hold the byte 0";
  }
  line.tail = rest;
  return nullptr;
}

bool needs_quotes(std::string_view value)
{
  if (value.empty()) {
    return false;
  }
  std::string_view rest = value;
  return value.front() == '"' || is_blank(value.front()) || take_unquoted(rest).size() != value.size() ||
         std::any_of(value.begin(), value.end(), is_control);
}

std::string quoted(std::string_view value)
{
  static const char digits[] = "0123456789abcdef";
  std::string text = "\"";
  for (const char c : value) {
    if (c == '\n') {
      text += "\\n";
    } else if (c == '"' || c == '\\') {
      text += {'\\', c};
    } else if (is_control(c)) {
      text += {'\\', 'x', digits[static_cast<unsigned char>(c) >> 4], digits[c & 15]};
    } else {
      text += c;
    }
  }
  return text + '"';
}

}  // namespace

bool config_key_is_valid(std::string_view key)
{
  return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-' || c == '[' || c == ']';
  });
}

std::string config_complaint::text(const std::string &path) const
{
  constexpr size_t KEY_SHOWN_MAX = 80;
  const bool is_plain = config_key_is_valid(key) && key.size() <= KEY_SHOWN_MAX;
  return path + (line != 0 ? ":" + std::to_string(line) : "") + ": " +
         (key.empty() ? "" : (is_plain ? key : config_shown(key)) + ": ") + why;
}

bool config_file_read(const std::string &path, std::string &text, std::string &error)
{
  constexpr size_t SIZE_MAX_BYTES = 1 << 20;
  std::string content;
  std::string why;
  if (file_read(path, content, why)) {
    if (content.empty()) {
      why = "the file is empty";  // as a power cut may leave it; a configuration of comments alone is one
    } else if (content.size() > SIZE_MAX_BYTES) {
      why = "larger than 1 MiB, which is no configuration";
    } else if (content.starts_with("\xff\xfe") || content.starts_with("\xfe\xff")) {
      why = "written in UTF-16; save it as UTF-8";
    }
  }
  if (!why.empty()) {
    error = path + ": " + why;
    return false;
  }
  text = std::move(content);
  return true;
}

bool config_file::parse(std::string_view text, const std::string &path, std::string &error)
{
  config_file read;
  const std::vector<config_complaint> complaints = read.parse_good_lines(text);
  if (!complaints.empty()) {
    error = complaints.front().text(path);
    return false;
  }
  *this = std::move(read);
  return true;
}

std::vector<config_complaint> config_file::parse_good_lines(std::string_view text)
{
  std::vector<config_complaint> complaints;
  lines_.clear();
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = text.find('\n');
    config_line line;
    line.text = text.substr(0, end);
    line.number = number;
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const char *why = read_line(line);
    const config_line *other = why != nullptr || line.key.empty() ? nullptr : find(line.key);
    if (other != nullptr) {
      complaints.push_back({number, line.key, "set already in line " + std::to_string(other->number)});
    } else if (why != nullptr) {
      complaints.push_back({number, line.key, why});
    } else {
      lines_.push_back(std::move(line));
    }
  }
  return complaints;
}

std::string config_file::text() const
{
  std::string all;
  for (const config_line &line : lines_) {
    all += line.text + '\n';
  }
  return all;
}

const config_line *config_file::find(std::string_view key) const
{
  const auto at = std::find_if(lines_.begin(), lines_.end(), [&](const config_line &line) { return line.key == key; });
  return at == lines_.end() ? nullptr : &*at;
}

void config_file::set(std::string_view key, std::string_view value)
{
  auto at = std::find_if(lines_.begin(), lines_.end(), [&](const config_line &line) { return line.key == key; });
  if (at == lines_.end()) {
    at = lines_.insert(at, config_line());
  } else if (at->value == value) {
    return;
  }
  at->key = key;
  at->value = value;
  if (!at->tail.empty() && !is_blank(at->tail.front())) {
    at->tail.insert(0, " ");
  }
  at->text = at->key + " = " + (needs_quotes(value) ? quoted(value) : at->value) + at->tail;
}

void config_file::remove(std::string_view key)
{
  std::erase_if(lines_, [&](const config_line &line) { return line.key == key; });
}

}  // namespace platform
