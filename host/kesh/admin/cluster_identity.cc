#include "admin/cluster_identity.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "bytes.h"
#include "items/chain_hash.h"

namespace kesh
{

namespace
{

constexpr size_t NAME_MAX_BYTES = 64;

bool is_name_letter(char letter)
{
  return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '.' || letter == '_' || letter == '-';
}

/// Six two-digit hexadecimal numbers with colons.
bool is_mac(const std::string &text)
{
  constexpr size_t LENGTH = 17;
  bool good = text.size() == LENGTH;
  for (size_t i = 0; good && i < LENGTH; ++i) {
    good = i % 3 == 2 ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
  }
  return good;
}

}  // namespace

std::vector<std::string> cluster_macs(const std::string &name, uint64_t generation, uint32_t count)
{
  hasher sum;
  std::string bytes;
  put_le(bytes, generation);
  put_le(bytes, count);
  sum.add(bytes);
  sum.add(name);
  const chain_hash hash = sum.finish();
  std::vector<std::string> macs;
  for (uint32_t node = 1; node <= count; node++) {
    char text[sizeof "02:00:00:00:00:00"];
    snprintf(text, sizeof text, "02:%02x:%02x:%02x:%02x:%02x", hash[0], hash[1], hash[2], hash[3], node & 0xff);
    macs.emplace_back(text);
  }
  return macs;
}

std::string cluster_name_fault(const std::string &name)
{
  if (name.empty() || name.size() > NAME_MAX_BYTES || !std::all_of(name.begin(), name.end(), is_name_letter)) {
    return "\"" + name + "\" is no name of a cluster: 1 to " + std::to_string(NAME_MAX_BYTES) +
           " letters, digits and . _ -";
  }
  return {};
}

std::string macs_fault(const std::vector<std::string> &macs, uint32_t count)
{
  for (const std::string &mac : macs) {
    if (!is_mac(mac) || mac == "00:00:00:00:00:00") {
      return mac + ": six two-digit hexadecimal numbers with colons are needed, not all 0";
    }
    if (std::count(macs.begin(), macs.end(), mac) > 1) {
      return mac + " is given twice";
    }
  }
  return macs.size() == count
             ? ""
             : std::to_string(macs.size()) + " addresses are given for " + std::to_string(count) + " nodes";
}

std::string trial_cluster_name()
{
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  std::string name = "trial-" + std::string(host);
  std::replace_if(
      name.begin(), name.end(), [](char letter) { return !is_name_letter(letter); }, '-');
  return name.substr(0, NAME_MAX_BYTES);
}

}  // namespace kesh
