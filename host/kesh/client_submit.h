/// `kesh submit`: a file or stdin, line by line, to the daemon; verdicts and times back.
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
