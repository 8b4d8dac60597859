/// What the daemon itself reads from the configuration. config/keys.h says what the keys mean.
#pragma once

#include <cstdint>
#include <string>

#include "config/keys.h"
#include "store/store.h"

namespace kesh
{

inline constexpr char CONFIG_PATH_DEFAULT[] = "/etc/kesh.conf";
inline constexpr const char *SOCKET_PATH_DEFAULT = kesh_key("kesh.socket").fallback.data();

struct settings {
  std::string socket_path;
  bool start = false;       ///< kesh.start: join the cluster when the daemon starts
  uint32_t node_id = 0;     ///< 0: not configured
  uint32_t node_count = 0;  ///< 0: not configured
  std::string cluster_name;
  uint64_t generation = 0;
  std::string first_mac;  ///< of node 1, lower case; empty: not configured
  std::string store_path;
  std::string metrics_listen;  ///< empty: nowhere
  uint64_t state_max{platform::config_default(kesh_key("state.max"))};  ///< bytes; the same on all nodes
  retention keep;
  std::string old_journal_path;  ///< a journal of earlier builds, which is taken over once

  /// What a store must agree in with those of the other nodes.
  std::string store_identity() const;
};

/// Reads the keys after platform::config_load. False, and `error` names file, line, key and why, if one is bad. Of keys
/// that contradict each other check.h tells.
bool settings_read(settings &result, std::string &error);

}  // namespace kesh
