/// `kesh submit`: sends a file or stdin to the daemon, line by line, and takes back verdicts and times.
#pragma once

#include <string>

namespace kesh
{

struct submit_options {
  std::string input = "-";
  int window = 64;           ///< lines that are open at once
  double timeout_s = 60;     ///< from the sending of a line to its deadline
  std::string latency_path;  ///< empty: none
  bool as_json = false;
};

/// Ends at the first line that is not acknowledged, once those before and beside it have their verdicts. Returns
/// EXIT_OK if every line was acknowledged, EXIT_REFUSED if some were not submitted and the fate of all is known,
/// EXIT_UNKNOWN if that of any is not. A daemon that says nothing for `timeout_s`, or takes longer to accept the
/// connection, is not waited for: lines that have no verdict then are of unknown outcome.
int submit_command(const std::string &socket_path, const submit_options &options);

}  // namespace kesh
