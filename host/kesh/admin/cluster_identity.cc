#include "admin/cluster_identity.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "bytes.h"
#include "config/keys.h"
#include "items/chain_hash.h"

namespace kesh
{

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
  return config_fault(kesh_key("cluster.name"), name);
}

std::string macs_fault(const std::vector<std::string> &macs, uint32_t count)
{
  for (const std::string &mac : macs) {
    if (std::string fault = config_fault(kesh_key("cluster.node[].mac"), mac); !fault.empty()) {
      return fault;
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
      name.begin(), name.end(),
      [](char letter) {
        return !is_cluster_name({&letter, 1});
      },
      '-');
  constexpr size_t NAME_MAX_BYTES = 64;
  return name.substr(0, NAME_MAX_BYTES);
}

}  // namespace kesh
