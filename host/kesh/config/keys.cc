#include "config/keys.h"

#include <algorithm>
#include <cctype>

namespace kesh
{

namespace
{

bool is_name_letter(char letter)
{
  return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '.' || letter == '_' || letter == '-';
}

template <size_t COUNT>
void add_keys(const config_key (&table)[COUNT], config_section &to)
{
  for (const config_key &key : table) {
    if (key.section == to.name) {
      to.keys.push_back(&key);
    }
  }
}

}  // namespace

bool is_cluster_name(std::string_view text)
{
  constexpr size_t LENGTH_MAX = 64;
  return !text.empty() && text.size() <= LENGTH_MAX && std::all_of(text.begin(), text.end(), is_name_letter);
}

bool is_mac_address(std::string_view text)
{
  constexpr size_t LENGTH = 17;
  bool is_good = text.size() == LENGTH && text != "00:00:00:00:00:00";
  for (size_t i = 0; is_good && i < LENGTH; ++i) {
    is_good = i % 3 == 2 ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
  }
  return is_good;
}

std::vector<config_section> config_sections()
{
  std::vector<config_section> sections;
  for (const std::string_view name : {"Cluster", "Daemon", "Store", "Log", "Messages between the nodes"}) {
    sections.push_back({name, {}});
    add_keys(KESH_KEYS, sections.back());
    add_keys(platform::PLATFORM_KEYS, sections.back());
  }
  return sections;
}

}  // namespace kesh
