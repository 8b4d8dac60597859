/// What a command prints, and the operations whose answer goes on with lines.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "client/control_client.h"
#include "exit_codes.h"

namespace kesh
{

/// False if stdout is closed or full.
inline bool write_out(std::string_view bytes)
{
  return fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
}

/// Hands each line to `print` until the daemon ends the stream or `print` returns false. `keep_up`: flushes each line.
template <typename printer>
int print_stream(const std::string &socket_path, const nlohmann::json &request, bool keep_up, printer print)
{
  control_client client;
  nlohmann::json reply;
  const int code = client.request(socket_path, request, reply);
  if (code != EXIT_OK) {
    return code;
  }
  std::string line;
  while (client.read_line(line) == read_result::line) {
    if (!print(line) || (keep_up && fflush(stdout) != 0)) {
      return EXIT_RUNTIME;
    }
  }
  return fflush(stdout) == 0 ? EXIT_OK : EXIT_RUNTIME;
}

}  // namespace kesh
