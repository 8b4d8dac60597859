/// `kesh submit`: sends a file or stdin to the daemon, line by line, and takes back verdicts and times.
#pragma once

#include <string>

namespace kesh
{

struct submit_options {
  std::string input = "-";
  int threads = 1;
  int timeout_s = 60;
  std::string latency_path;  ///< empty: none
  bool as_json = false;
};

/// Returns EXIT_OK if every line was acknowledged.
int submit_command(const std::string &socket_path, const submit_options &options);

}  // namespace kesh
