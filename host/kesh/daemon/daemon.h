/// The daemon: from configuration to clean shutdown.
#pragma once

#include <string>

namespace kesh
{

class observer;

/// Runs until SIGTERM, SIGINT or `kesh stop`; SIGHUP opens the log again. `log_to_stderr` overrides log.file.
/// `watch` outlives the call. Returns an exit code. The log says what went wrong.
int daemon_run(const std::string &config_path, bool log_to_stderr, observer &watch);

}  // namespace kesh
