/// `kesh backup`, `kesh verify`, `kesh restore`. Each prints its result, and returns an exit code.
#pragma once

#include <optional>
#include <string>

#include "store/store.h"

namespace kesh
{

/// Where a node's store is, and what belongs to it.
struct store_place {
  store_settings store;
  std::string records;       ///< directory of the library's records
  bool is_reformed = false;  ///< kesh reform was the last that happened to them
};

struct store_access {
  std::string socket_path;
  std::optional<store_place> place;  ///< none: the configuration cannot be used, `why` says why
  std::string why;
};

/// Writes a copy of the store as it is at one moment, whether a daemon runs or not. An existing file is never
/// overwritten. The library's records are no part of it: restored on any day but today's they would break promises that
/// this node has made.
int backup_command(const store_access &access, const std::string &file);

/// Checks the store (`file` empty), which the daemon does if one answers, or a named database: every hash, every
/// number. EXIT_RUNTIME if it finds a fault.
int verify_command(const store_access &access, const std::string &file, bool as_json);

/// Puts the present store aside and a copy of the backup in its place, marked incomplete: what happened since comes
/// from the other nodes. A crash leaves the present store, none, or the restored one; the same command goes on.
int restore_command(const store_access &access, const std::string &file);

}  // namespace kesh
