#include "client/client_commands.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "client/control_client.h"
#include "client/line_stream.h"
#include "cluster/lead.h"
#include "cluster/node_state_file.h"
#include "exit_codes.h"

namespace kesh
{

using nlohmann::json;

namespace
{

// What a script or a person waits for must not hang with the daemon.
constexpr control_client::wait_time QUESTION_WAIT{10};
constexpr control_client::wait_time CHECK_WAIT{3};

int simple_command(const std::string &socket_path, const json &request)
{
  control_client client;
  json reply;
  return client.request(socket_path, request, reply);
}

/// "TIME_S NODE TEXT" becomes "2026-01-31 12:00:00 node 2: TEXT".
bool print_heard(const std::string &line)
{
  long long time_s = 0;
  unsigned node = 0;
  int text_offset = 0;
  if (sscanf(line.c_str(), "%lld %u%n", &time_s, &node, &text_offset) != 2) {
    return true;
  }
  const time_t time = time_s;
  tm local;
  char date[32];
  strftime(date, sizeof date, "%F %T", localtime_r(&time, &local));
  return printf("%s node %u:%s\n", date, node, line.c_str() + text_offset) >= 0;
}

}  // namespace

int status_command(const std::string &socket_path, std::string (*to_text)(const json &status))
{
  control_client client;
  json reply;
  const int code = client.request(socket_path, {{"op", "status"}}, reply, QUESTION_WAIT);
  if (code != EXIT_OK) {
    return code;
  }
  const json &status = reply.at("status");
  return write_out(to_text == nullptr ? status.dump(2) + '\n' : to_text(status)) ? EXIT_OK : EXIT_RUNTIME;
}

int health_command(const std::string &socket_path, health_question asked, bool as_json)
{
  control_client client;
  json reply;
  const int code = client.request(socket_path, {{"op", "health"}}, reply, CHECK_WAIT);
  if (code != EXIT_OK) {
    return code;
  }
  json answers = {{"live", {{"yes", true}, {"reason", ""}}}};
  for (const char *name : {"ready", "eligible"}) {
    answers[name] = reply.at(name);
  }
  const std::string name = asked == health_question::live    ? "live"
                           : asked == health_question::ready ? "ready"
                                                             : "eligible";
  const bool is_so = answers.at(name).at("yes").get<bool>();
  const std::string text = is_so ? name : "not " + name + ": " + answers.at(name).at("reason").get<std::string>();
  printf("%s\n", as_json ? answers.dump().c_str() : text.c_str());
  return is_so ? EXIT_OK : EXIT_REFUSED;
}

int vrrp_command(const std::string &socket_path, const std::string &state_path, const std::string &word)
{
  std::string error;
  if (!vrrp_state_of(word)) {
    fprintf(stderr, "kesh vrrp: %s is none of MASTER, BACKUP, FAULT, STOP\n", word.c_str());
    return EXIT_USAGE;
  }
  if (!state_word_write(state_path, word, error)) {
    fprintf(stderr, "kesh vrrp: %s\n", error.c_str());
    return EXIT_CONFIG;
  }
  // The state is noted: a daemon that is not there yet, or is busy, reads the file later.
  control_client client;
  json reply;
  const socket_deadline deadline = deadline_after(CHECK_WAIT);
  if (client.connect(socket_path, deadline)) {
    client.ask({{"op", "vrrp"}}, reply, deadline);
  }
  return EXIT_OK;
}

int say_command(const std::string &socket_path, const std::string &text)
{
  return simple_command(socket_path, {{"op", "say"}, {"text", text}});
}

int heard_command(const std::string &socket_path, bool follow)
{
  return print_stream(socket_path, {{"op", "heard"}, {"follow", follow}}, follow, print_heard);
}

int life_cycle_command(const std::string &socket_path, const std::string &operation, double timeout_s)
{
  const control_client::wait_time wait(timeout_s);
  const socket_deadline deadline = deadline_after(wait);
  control_client client;
  json reply;
  const int code = client.request(socket_path, {{"op", operation}}, reply, wait);
  if (code != EXIT_OK || operation != "stop") {
    return code;
  }
  // The daemon closes the connection as the last thing that it does.
  std::string line;
  read_result got;
  while ((got = client.read_line(line, deadline)) == read_result::line) {
  }
  if (got == read_result::late) {
    fprintf(stderr, "kesh: the daemon on %s still stops after %g s\n", socket_path.c_str(), timeout_s);
    return EXIT_RUNTIME;
  }
  return EXIT_OK;
}

int reload_command(const std::string &socket_path)
{
  return simple_command(socket_path, {{"op", "reload"}});
}

int log_level_command(const std::string &socket_path, const std::string &level)
{
  return simple_command(socket_path, {{"op", "log_level"}, {"level", level}});
}

}  // namespace kesh
