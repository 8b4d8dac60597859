/// `kesh configure`: writes the cluster into the configuration and resets this node, with the daemon down.
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
  std::vector<std::string> macs;  ///< empty: made up, the same for every cluster
  std::string ipaddr;
  std::string netmask;
  std::string gateway;
  bool yes = false;  ///< an existing journal may be emptied
};

/// Returns an exit code; errors go to stderr.
int configure_run(const configure_options &options);

}  // namespace kesh
