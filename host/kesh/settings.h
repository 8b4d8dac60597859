/// The configuration keys of the daemon itself.
#pragma once

#include <cstdint>
#include <string>

#include "journal.h"

namespace kesh
{

inline constexpr char CONFIG_PATH_DEFAULT[] = "/etc/kesh.conf";
inline constexpr char SOCKET_PATH_DEFAULT[] = "/run/kesh.sock";

struct settings {
  std::string socket_path;
  bool start = true;        ///< kesh.start: join the cluster when the daemon starts
  uint32_t node_id = 0;     ///< 0: not configured
  uint32_t node_count = 0;  ///< 0: not configured
  journal_settings journal;
};

/// Reads the keys after platform::config_load. False, and `error` names file, line, key and why, if one is bad.
bool settings_read(settings &result, std::string &error);

}  // namespace kesh
