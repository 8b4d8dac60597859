/// What is wrong with a configuration: `kesh check`, and before each start of the daemon.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config/keys.h"
#include "config_file.h"

namespace kesh
{

/// Of a text: lines that cannot be read, unknown keys, values that are not allowed, keys that contradict each other. In
/// the order of the lines. `more` are keys that are known, too.
std::vector<platform::config_complaint> config_complaints(std::string_view text, std::span<const config_key> more);

/// Of a file: "path:line: key: why", one text for each. Nothing is started, opened or changed.
std::vector<std::string> config_faults(const std::string &path, std::span<const config_key> more);

/// `kesh check`: prints all faults. Returns the exit code.
int check_command(const std::string &path, std::span<const config_key> more);

}  // namespace kesh
