#include "client/metrics.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "atomic_file.h"
#include "client/control_client.h"
#include "client/line_stream.h"
#include "exit_codes.h"
#include "metrics/metrics_text.h"

namespace kesh
{

using nlohmann::json;

namespace
{
constexpr control_client::wait_time QUESTION_WAIT{10};
}

int metrics_command(const std::string &socket_path, const std::string &file)
{
  control_client client;
  json reply;
  if (const int code = client.request(socket_path, {{"op", "status"}}, reply, QUESTION_WAIT); code != EXIT_OK) {
    return code;
  }
  const std::string text = metrics_text(reply.at("status"));
  if (file.empty()) {
    return write_out(text) ? EXIT_OK : EXIT_RUNTIME;
  }
  std::string error;
  if (!platform::file_replace(file, text, error)) {
    fprintf(stderr, "kesh metrics: %s\n", error.c_str());
    return EXIT_CONFIG;
  }
  return EXIT_OK;
}

}  // namespace kesh
