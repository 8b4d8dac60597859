/// The configuration keys of the daemon itself.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "journal.h"

namespace kesh
{

inline constexpr char CONFIG_PATH_DEFAULT[] = "/etc/kesh.conf";
inline constexpr char SOCKET_PATH_DEFAULT[] = "/run/kesh.sock";

struct trace_settings {
  std::string path;                          ///< empty: no trace
  bool marks = false;                        ///< the messaging service is told where hooks begin and end
  std::array<uint32_t, 4> state_bytes = {};  ///< size of the states of types 1 to 3; 0: no state
};

struct settings {
  std::string socket_path;
  bool start = true;        ///< kesh.start: join the cluster when the daemon starts
  uint32_t node_id = 0;     ///< 0: not configured
  uint32_t node_count = 0;  ///< 0: not configured
  journal_settings journal;
  trace_settings trace;
};

/// Reads the keys after platform::config_load. False, and `error` names file, line, key and why, if one is bad.
bool settings_read(settings &result, std::string &error);

}  // namespace kesh
