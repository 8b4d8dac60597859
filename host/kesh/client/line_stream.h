/// What a command prints, and the operations whose answer goes on with lines.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "client/control_client.h"
#include "control/request.h"
#include "exit_codes.h"

namespace kesh
{

/// False if stdout is closed or full.
inline bool write_out(std::string_view bytes)
{
  return fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
}

/// Hands each line to `print` until the stream ends or `print` returns false. A stream that follows ends only with the
/// daemon; each of its lines is flushed. EXIT_UNREACHABLE if the daemon went away.
template <typename printer>
int print_stream(const std::string &socket_path, const nlohmann::json &request, bool follows, printer print)
{
  control_client client;
  nlohmann::json reply;
  const int code = client.request(socket_path, request, reply);
  if (code != EXIT_OK) {
    return code;
  }
  std::string line;
  read_result got;
  while ((got = client.read_line(line)) == read_result::line && line != STREAM_END) {
    if (!print(line) || (follows && fflush(stdout) != 0)) {
      return EXIT_RUNTIME;
    }
  }
  if (fflush(stdout) != 0) {
    return EXIT_RUNTIME;
  }
  if (got != read_result::line) {
    fprintf(stderr, "kesh: the daemon on %s went away%s\n", socket_path.c_str(), follows ? "" : " before the end");
    return EXIT_UNREACHABLE;
  }
  return EXIT_OK;
}

}  // namespace kesh
