/// The configuration file as text. What an operator wrote stays as it was, line by line.
///
///   # comment; blank lines are allowed
///   key = value            # the value ends before a blank and '#'
///   key = "  value\n"      # quoted: blanks and '#' count; \\ \" \n \r \t \xHH
///
/// Keys consist of letters, digits and . _ - [ ] and appear once. Lines may end in CR LF, the last one in nothing, and
/// a UTF-8 byte order mark may stand in front.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace platform
{

struct config_line {
  std::string text;   ///< as in the file, without the newline
  std::string key;    ///< empty: comment or blank line
  std::string value;  ///< unquoted
  std::string tail;   ///< what follows the value: blanks and a comment
  size_t number = 0;  ///< in the file, from 1; 0: added since
};

/// What is wrong with a file.
struct config_complaint {
  size_t line = 0;  ///< 0: with no line of its own
  std::string key;  ///< empty: none, or `why` names it
  std::string why;

  /// "path:line: key: why".
  std::string text(const std::string &path) const;
};

/// Reads a file that can be a configuration: not empty, not of another kind. On failure `error` is "path: why".
bool config_file_read(const std::string &path, std::string &text, std::string &error);

class config_file
{
public:
  /// Replaces the content. On failure returns false, keeps the old content, and `error` tells the first complaint.
  bool parse(std::string_view text, const std::string &path, std::string &error);
  /// Replaces the content by the good lines of the text, and tells what is wrong with the others.
  std::vector<config_complaint> parse_good_lines(std::string_view text);
  std::string text() const;
  const std::vector<config_line> &lines() const { return lines_; }

  /// Null if the key is not set. Valid until the next change.
  const config_line *find(std::string_view key) const;
  /// Changes the key's line or appends one.
  void set(std::string_view key, std::string_view value);
  void remove(std::string_view key);

private:
  std::vector<config_line> lines_;
};

/// The longest key that vx_cfg_* take.
inline constexpr size_t CONFIG_KEY_MAX = 255;

/// True if the text can be a key.
bool config_key_is_valid(std::string_view key);

}  // namespace platform
