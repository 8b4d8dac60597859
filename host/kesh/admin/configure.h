/// `kesh configure`: writes the cluster into the configuration and resets this node. The daemon must not run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesh
{

struct configure_options {
  std::string config_path;
  uint32_t node_count = 0;
  uint32_t node_id = 0;
  std::vector<std::string> macs;  ///< empty: generated, the same for every cluster
  std::string ipaddr;
  std::string netmask;
  std::string gateway;
  bool yes = false;  ///< a journal that has lines may be emptied
};

/// Returns an exit code; errors go to stderr.
int configure_run(const configure_options &options);

}  // namespace kesh
