#include "cluster/configured_cluster.h"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace kesh
{

namespace
{

std::string mac_text(uint64_t number)
{
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string text;
  for (int shift = 40; shift >= 0; shift -= 8) {
    text += DIGITS[number >> (shift + 4) & 0xf];
    text += DIGITS[number >> shift & 0xf];
    text += shift == 0 ? "" : ":";
  }
  return text;
}

/// A name that arrives as it was sent.
std::string plain_name(std::string name)
{
  name.resize(std::min(name.size(), CLUSTER_NAME_MAX));
  std::replace_if(
      name.begin(), name.end(),
      [](char letter) { return letter < ' ' || letter > '~' || letter == '"' || letter == '\\'; }, '?');
  return name;
}

}  // namespace

uint64_t cluster_number(const settings &configured)
{
  std::string mac = configured.first_mac;
  std::erase(mac, ':');
  return strtoull(mac.c_str(), nullptr, 16);
}

cluster_identity configured_cluster(const settings &configured)
{
  return {plain_name(configured.cluster_name), mac_text(cluster_number(configured)), configured.generation};
}

}  // namespace kesh
