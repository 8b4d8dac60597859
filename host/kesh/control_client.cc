#include "control_client.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "exit_codes.h"

namespace kesh
{

int control_client::request(const std::string &socket_path, const nlohmann::json &request, nlohmann::json &reply)
{
  fd_ = socket_connect(socket_path);
  if (!fd_) {
    fprintf(stderr, "kesh: no daemon answers on %s: %s\n", socket_path.c_str(), strerror(errno));
    return EXIT_UNREACHABLE;
  }
  reader_.emplace(fd_.get());
  const std::string line = request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  std::string answer;
  if (!socket_writer(fd_.get()).send(line) || read_line(answer) != read_result::line) {
    fprintf(stderr, "kesh: the daemon on %s closed the connection without an answer\n", socket_path.c_str());
    return EXIT_UNREACHABLE;
  }
  reply = nlohmann::json::parse(answer, nullptr, false);
  if (!reply.is_object() || !reply.contains("ok")) {
    fprintf(stderr, "kesh: what answers on %s is no daemon of this kind\n", socket_path.c_str());
    return EXIT_UNREACHABLE;
  }
  if (reply.at("ok") != true) {
    fprintf(stderr, "kesh: %s\n", reply.value("error", "refused").c_str());
    return reply.value("code", static_cast<int>(EXIT_RUNTIME));
  }
  return EXIT_OK;
}

}  // namespace kesh
