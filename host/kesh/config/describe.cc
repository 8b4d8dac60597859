#include "config/describe.h"

#include <algorithm>
#include <string_view>

#include "config/keys.h"

namespace kesh
{

namespace
{

constexpr size_t EXAMPLE_WIDTH = 110;
constexpr size_t MANUAL_WIDTH = 78;
constexpr int EXAMPLE_NODES = 3;

constexpr char EXAMPLE_HEAD[] =
    R"(# Configuration of the kesh daemon. Copy it to /etc/kesh.conf; "kesh check" tests it, and kesh.conf(5) says more.
#
# One "key = value" per line; "#" starts a comment. Put a value in double quotes if it begins or ends with a
# blank, or if it contains a "#" after a blank. Comments and order stay when a program writes to this file.
# Where yes or no is asked for, yes, true, on and 1 are the same, and so are no, false, off and 0.
)";

/// The text in lines of at most `width` bytes, each behind `prefix`.
std::string wrapped(std::string_view text, std::string_view prefix, size_t width)
{
  std::string result;
  while (!text.empty()) {
    size_t end = text.size();
    if (end > width) {
      const size_t last = text.rfind(' ', width);
      end = std::min(last == std::string_view::npos ? text.find(' ') : last, text.size());
    }
    result.append(prefix).append(text.substr(0, end)).append(1, '\n');
    text.remove_prefix(end);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  }
  return result;
}

std::string in_place_of(std::string text, std::string_view what, const std::string &by)
{
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
  return text;
}

/// The last sentences of each description, from the fields of the row.
std::string allowed_and_default(const config_key &key)
{
  std::string text;
  if (const std::string allowed = config_allowed(key); !allowed.empty() && key.kind != config_kind::toggle) {
    text = "Allowed: " + allowed + ".";
  }
  if (!key.unset.empty()) {
    text.append(text.empty() ? "" : " ").append("Not set: ").append(key.unset).append(".");
  }
  return text;
}

/// The line as an operator would write it; behind a "#" if it says what holds anyway.
std::string example_line(const config_key &key, const std::string &name, const std::string &value)
{
  return (key.is_wanted ? "" : "#") + name + " = " + value + '\n';
}

std::string example_of(const config_key &key)
{
  std::string text = wrapped(key.help, "# ", EXAMPLE_WIDTH) + wrapped(allowed_and_default(key), "# ", EXAMPLE_WIDTH);
  const std::string name(key.name);
  const std::string value(key.example.empty() ? key.fallback : key.example);
  if (name.find("[]") == std::string::npos) {
    return text + example_line(key, name, value);
  }
  for (int node = 1; node <= EXAMPLE_NODES; ++node) {
    const std::string number = std::to_string(node);
    text += example_line(key, in_place_of(name, "[]", "[" + number + "]"), in_place_of(value, "N", number));
  }
  return text;
}

/// Comma and blank between, the last one behind "and".
std::string list_of(const std::vector<std::string> &names)
{
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
  }
  return text;
}

/// In mdoc each sentence begins a line, and a line that begins with a dot would be a request.
std::string mdoc_text(std::string_view text)
{
  std::string result;
  while (!text.empty()) {
    const size_t end = std::min(text.find(". "), text.size());
    const std::string sentence(text.substr(0, end == text.size() ? end : end + 1));
    text.remove_prefix(std::min(end + 2, text.size()));
    result += wrapped(in_place_of(sentence, "\\", "\\e"), "", MANUAL_WIDTH);
  }
  return in_place_of(result, "\n.", "\n\\&.");
}

std::string manual_of(const config_key &key)
{
  std::string text = ".It Ic " + in_place_of(std::string(key.name), "[]", "[N]") + '\n' + mdoc_text(key.help);
  std::string end = allowed_and_default(key);
  if (!key.fallback.empty()) {
    end.append(end.empty() ? "" : " ").append("Default: ").append(key.fallback).append(".");
  }
  if (key.index_high != 0) {
    end.append(" N is ").append(std::to_string(key.index_low)).append(" to ");
    end.append(std::to_string(key.index_high)).append(".");
  }
  return text + mdoc_text(end);
}

}  // namespace

std::string config_example()
{
  std::string text = EXAMPLE_HEAD;
  for (const config_section &section : config_sections()) {
    const std::string title = "# --- " + std::string(section.name) + " ";
    text += '\n' + title + std::string(EXAMPLE_WIDTH - title.size(), '-') + '\n';
    std::vector<std::string> configured;
    for (const config_key *key : section.keys) {
      if (key->is_configured) {
        configured.push_back(in_place_of(std::string(key->name), "[]", "[N]"));
      } else {
        text += example_of(*key);
      }
    }
    if (!configured.empty()) {
      text += wrapped("\"kesh configure\" also writes " + list_of(configured) + ".", "# ", EXAMPLE_WIDTH);
    }
  }
  return text;
}

std::string config_manual()
{
  std::string text;
  for (const config_section &section : config_sections()) {
    text.append(".Ss ").append(section.name).append("\n.Bl -tag -width Ds\n");
    for (const bool is_configured : {false, true}) {
      for (const config_key *key : section.keys) {
        if (key->is_configured == is_configured) {
          text += manual_of(*key);
          text += is_configured ? ".Dq kesh configure\nwrites it.\n" : "";
        }
      }
    }
    text += ".El\n";
  }
  return text;
}

}  // namespace kesh
