/// Warns of keys that nobody reads: they are most likely misspelt, and have no effect.
#pragma once

#include <string>

namespace kesh
{

/// Logs a warning for every key of the groups kesh, state, retention, journal, messaging and log in the file that this
/// program does not know. After platform::config_load, which has refused a file of another form.
void warn_of_unknown_keys(const std::string &config_path);

}  // namespace kesh
