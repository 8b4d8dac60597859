#include "client/control_client.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "exit_codes.h"

namespace kesh
{

socket_deadline deadline_after(control_client::wait_time wait)
{
  return wait == control_client::FOREVER
             ? socket_deadline::max()
             : std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(wait);
}

bool control_client::connect(const std::string &path, socket_deadline deadline)
{
  path_ = path;
  fd_ = socket_connect(path, deadline);
  if (fd_) {
    reader_.emplace(fd_.get());
  }
  return static_cast<bool>(fd_);
}

int control_client::ask(const nlohmann::json &request, nlohmann::json &reply, socket_deadline deadline)
{
  const std::string line = request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  std::string answer;
  const bool is_sent = socket_send(fd_.get(), line);
  const read_result got = is_sent ? read_line(answer, deadline) : read_result::end;
  if (got == read_result::late) {
    fprintf(stderr, "kesh: the daemon on %s does not answer in time\n", path_.c_str());
    return EXIT_UNREACHABLE;
  }
  if (got != read_result::line) {
    fprintf(stderr, "kesh: the daemon on %s closed the connection without an answer\n", path_.c_str());
    return EXIT_UNREACHABLE;
  }
  reply = nlohmann::json::parse(answer, nullptr, false);
  if (!reply.is_object() || !reply.contains("ok")) {
    fprintf(stderr, "kesh: what answers on %s is no daemon of this kind\n", path_.c_str());
    return EXIT_UNREACHABLE;
  }
  if (reply.at("ok") != true) {
    fprintf(stderr, "kesh: %s\n", reply.value("error", "refused").c_str());
    return reply.value("code", static_cast<int>(EXIT_RUNTIME));
  }
  return EXIT_OK;
}

int control_client::request(const std::string &path, const nlohmann::json &request, nlohmann::json &reply,
                            wait_time wait)
{
  const socket_deadline deadline = deadline_after(wait);
  if (!connect(path, deadline)) {
    fprintf(stderr, "kesh: no daemon answers on %s: %s\n", path.c_str(), strerror(errno));
    return EXIT_UNREACHABLE;
  }
  return ask(request, reply, deadline);
}

}  // namespace kesh
