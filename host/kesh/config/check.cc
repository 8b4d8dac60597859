#include "config/check.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "config/nearest_name.h"
#include "exit_codes.h"
#include "messaging_settings.h"
#include "seal/seal_keys.h"

namespace kesh
{

using platform::config_complaint;
using platform::config_file;
using platform::config_line;

namespace
{

constexpr char ADDRESS_KEY[] = "messaging.node[].address";

/// A key as the table writes it, and what stood in its brackets.
struct split_key {
  std::string name;
  std::vector<std::string> numbers;
};

split_key split(const std::string &key)
{
  split_key result;
  for (size_t pos = 0; pos < key.size();) {
    result.name += key[pos++];
    if (key[pos - 1] == '[') {
      const size_t end = std::min(key.find_first_not_of("0123456789", pos), key.size());
      result.numbers.push_back(key.substr(pos, end - pos));
      pos = end;
    }
  }
  return result;
}

std::string with_numbers(const std::string &name, const std::vector<std::string> &numbers)
{
  std::string key;
  size_t next = 0;
  for (const char letter : name) {
    key += letter;
    if (letter == '[') {
      key += next < numbers.size() && !numbers[next].empty() ? numbers[next] : "N";
      ++next;
    }
  }
  return key;
}

const config_key *find_in(std::span<const config_key> table, const std::string &name)
{
  const auto at = std::find_if(table.begin(), table.end(), [&](const config_key &key) { return key.name == name; });
  return at == table.end() ? nullptr : &*at;
}

/// An index that no reader asks for would be without effect: 17, and 01.
bool is_index_of(const config_key &key, const std::string &number)
{
  uint32_t index = 0;
  std::from_chars(number.data(), number.data() + number.size(), index);
  return number == std::to_string(index) && index >= key.index_low && index <= key.index_high;
}

class checker
{
public:
  explicit checker(std::span<const config_key> more) : tables_{KESH_KEYS, platform::PLATFORM_KEYS, more} {}

  void check(const config_line &line)
  {
    const split_key key = split(line.key);
    const config_key *known = find(key.name);
    if (known == nullptr) {
      complain(line.number, "", unknown(line.key, key));
    } else if (!key.numbers.empty() && !is_index_of(*known, key.numbers.front())) {
      complain(line.number, line.key,
               "the number in brackets is not one of " + std::to_string(known->index_low) + " to " +
                   std::to_string(known->index_high));
    } else {
      complain(line.number, line.key, config_fault(*known, line.value));
    }
  }
  /// No complaint if `why` is empty.
  void complain(size_t line, const std::string &key, const std::string &why)
  {
    if (!why.empty()) {
      complaints.push_back({line, key, why});
    }
  }

  std::vector<config_complaint> complaints;

private:
  const config_key *find(const std::string &name) const
  {
    const config_key *found = nullptr;
    for (size_t i = 0; i < std::size(tables_) && found == nullptr; ++i) {
      found = find_in(tables_[i], name);
    }
    return found;
  }
  static std::string unknown(const std::string &key, const split_key &parts)
  {
    std::vector<std::string> names;
    for (const config_section &section : config_sections()) {
      for (const config_key *one : section.keys) {
        names.emplace_back(one->name);
      }
    }
    constexpr size_t SHOWN_MAX = 80;
    const std::string nearest = nearest_name(parts.name, names);
    return "unknown key " + (key.size() > SHOWN_MAX ? platform::config_shown(key) : key) +
           (nearest.empty() ? "" : "; did you mean " + with_numbers(nearest, parts.numbers) + "?");
  }

  std::span<const config_key> tables_[3];
};

/// The number of a key; 0 if it is not set, or none.
uint32_t number_of(const config_file &file, std::string_view key)
{
  uint32_t number = 0;
  if (const config_line *line = file.find(key)) {
    std::from_chars(line->value.data(), line->value.data() + line->value.size(), number);
  }
  return number;
}

void check_cluster(const config_file &file, checker &to)
{
  const config_line *supported = file.find("cluster.supported");
  const uint32_t count = number_of(file, "cluster.node._s_");
  if (supported == nullptr || !platform::config_toggle_value(supported->value).value_or(false) || count == 0) {
    return;
  }
  const config_line *node_id = file.find("cluster.node_id");
  if (node_id != nullptr && number_of(file, "cluster.node_id") > count) {
    to.complain(node_id->number, node_id->key,
                platform::config_shown(node_id->value) +
                    " is above the number of nodes, which cluster.node._s_ says is " + std::to_string(count));
  }
  for (const char *key : {"cluster.node_id", "cluster.node[0].mac"}) {
    if (file.find(key) == nullptr) {
      to.complain(0, key, "not set, but cluster.node._s_ is; kesh configure writes both");
    }
  }
}

void check_addresses(const config_file &file, checker &to)
{
  std::array<const config_line *, platform::NODES_MAX> lines{};
  platform::messaging_settings settings;
  for (uint32_t i = 0; i < lines.size(); ++i) {
    lines[i] = file.find(with_numbers(ADDRESS_KEY, {std::to_string(i + 1)}));
    if (lines[i] != nullptr && platform::is_node_address(lines[i]->value)) {
      settings.node_address[i] = platform::node_address_of(lines[i]->value);
    }
  }
  for (uint32_t i = 0; i < lines.size(); ++i) {
    to.complain(lines[i] == nullptr ? 0 : lines[i]->number, with_numbers(ADDRESS_KEY, {std::to_string(i + 1)}),
                platform::address_clash(settings.node_address, i + 1));
  }
}

void check_key_file(const config_file &file, checker &to)
{
  const config_line *line = file.find("messaging.keys");
  if (line == nullptr ? access(KEYS_PATH_DEFAULT, F_OK) != 0 : !is_absolute_path(line->value)) {
    return;
  }
  platform::seal_keys keys;
  std::string why;
  if (!platform::seal_keys_load(line == nullptr ? KEYS_PATH_DEFAULT : line->value, keys, why)) {
    to.complain(line == nullptr ? 0 : line->number, "messaging.keys", why);
  }
}

}  // namespace

std::vector<config_complaint> config_complaints(std::string_view text, std::span<const config_key> more)
{
  config_file file;
  checker made(more);
  made.complaints = file.parse_good_lines(text);
  for (const config_line &line : file.lines()) {
    if (!line.key.empty()) {
      made.check(line);
    }
  }
  check_cluster(file, made);
  check_addresses(file, made);
  check_key_file(file, made);
  std::stable_sort(made.complaints.begin(), made.complaints.end(),
                   [](const config_complaint &one, const config_complaint &other) { return one.line < other.line; });
  return made.complaints;
}

std::vector<std::string> config_faults(const std::string &path, std::span<const config_key> more)
{
  std::string text;
  std::string error;
  if (!platform::config_file_read(path, text, error)) {
    return {error};
  }
  std::vector<std::string> faults;
  for (const config_complaint &complaint : config_complaints(text, more)) {
    faults.push_back(complaint.text(path));
  }
  return faults;
}

int check_command(const std::string &path, std::span<const config_key> more)
{
  const std::vector<std::string> faults = config_faults(path, more);
  for (const std::string &fault : faults) {
    fprintf(stderr, "kesh: %s\n", fault.c_str());
  }
  if (faults.empty()) {
    printf("%s: no fault\n", path.c_str());
  }
  return faults.empty() ? EXIT_OK : EXIT_CONFIG;
}

}  // namespace kesh
