/// `kesh metrics`.
#pragma once

#include <string>

namespace kesh
{

/// Writes the metrics of the daemon to stdout, or replaces `file` by them at once, as a collector of text files wants
/// it. Returns an exit code.
int metrics_command(const std::string &socket_path, const std::string &file);

}  // namespace kesh
