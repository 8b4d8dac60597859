/// `kesh configure` and `kesh reform`: write the cluster into the configuration and reset this node. The daemon must
/// not run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kesh
{

struct configure_options {
  std::string config_path;
  bool single = false;  ///< a cluster of this node alone; stands for node_count, node_id and cluster_name
  uint32_t node_count = 0;
  uint32_t node_id = 0;
  std::string cluster_name;
  uint64_t generation = 1;
  std::vector<std::string> macs;  ///< empty: they follow from cluster_name and generation
  std::string ipaddr;
  std::string netmask;
  std::string gateway;
  bool yes = false;  ///< a store or a journal that has lines may be put aside
};

/// Returns an exit code; errors go to stderr.
int configure_run(const configure_options &given);

struct reform_options {
  std::string config_path;
  uint64_t generation = 0;        ///< the new one, above the present one
  std::vector<uint32_t> without;  ///< nodes whose stores are lost for good: nobody waits for them
  bool yes = false;  ///< another command that was interrupted is given up; so is what was decided and not applied here
};

/// `kesh reform`: the configured cluster begins another generation, and this node keeps its store. As configure_run.
int reform_run(const reform_options &given);

}  // namespace kesh
