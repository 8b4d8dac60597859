/// One key of the configuration, and all that is known of it. Who reads the key, who checks a file, the example file
/// and the manual page take it from here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform
{

enum class config_kind { text, number, toggle, choice };

struct config_key {
  std::string_view name = {};  ///< [] stands for a number in brackets; at most once
  std::string_view section = {};
  config_kind kind = config_kind::text;
  std::string_view fallback = {};  ///< if the key is not set, as an operator would write it; a number: digits only
  std::string_view help = {};      ///< sentences
  std::string_view unit = {};      ///< of a number, in the plural
  int64_t low = 0;                 ///< of a number
  int64_t high = 0;                ///< of a number, allowed too
  std::string_view words = {};     ///< of a choice, separated by ", "
  std::string_view form = {};      ///< what a text has to be, such as "a path that begins with /"
  bool (*accepts)(std::string_view) = nullptr;  ///< whether a text is that; null: any text is good
  uint32_t index_low = 0;                       ///< of the number in brackets
  uint32_t index_high = 0;
  std::string_view unset = {};    ///< what holds while the key is not set, where there is no fallback
  std::string_view example = {};  ///< a value for the example file, where the fallback tells little
  bool is_wanted = false;         ///< the example file sets it
  bool is_configured = false;     ///< a command writes it, no operator
};

/// The key of that name. Compiles only if the table has it.
template <size_t COUNT>
consteval const config_key &config_key_in(const config_key (&table)[COUNT], std::string_view name)
{
  for (const config_key &key : table) {
    if (key.name == name) {
      return key;
    }
  }
  throw "the table has no such key";
}

/// The fallback of a number; 0 if there is none.
constexpr int64_t config_default(const config_key &key)
{
  int64_t number = 0;
  for (const char digit : key.fallback) {
    number = number * 10 + (digit - '0');
  }
  return number;
}

/// yes, true, on and 1 are the same, and so are no, false, off and 0. Empty: none of them.
std::optional<bool> config_toggle_value(std::string_view text);

/// What the key takes, to be read behind "is" or "is not": "a whole number of bytes from 0 to 9". Empty: any text.
std::string config_allowed(const config_key &key);

/// Why the key cannot have this value: `"x" is not a whole number from 0 to 9`. Empty: it can.
std::string config_fault(const config_key &key, std::string_view value);

/// A value for a message: in quotes, of long ones the beginning, what cannot be printed as \xHH.
std::string config_shown(std::string_view value);

}  // namespace platform
