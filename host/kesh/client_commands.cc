#include "client_commands.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "control_client.h"
#include "exit_codes.h"
#include "file_record.h"
#include "status.h"

namespace kesh
{

using nlohmann::json;

namespace
{

bool write_out(std::string_view bytes)
{
  return fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
}

int simple_command(const std::string &socket_path, const json &request)
{
  control_client client;
  json reply;
  return client.request(socket_path, request, reply);
}

/// Hands each line to `print` until the daemon ends the stream or stdout is closed. `keep_up`: flushes each line.
template <typename printer>
int print_stream(const std::string &socket_path, const json &request, bool keep_up, printer print)
{
  control_client client;
  json reply;
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

bool print_record(const std::string &line, bool tags, file_record &record)
{
  if (line.starts_with("# ")) {
    fprintf(stderr, "kesh: %s\n", line.c_str() + 2);
    return true;
  }
  if (!file_record_parse(line, record)) {
    fprintf(stderr, "kesh: a record arrived damaged\n");
    return false;
  }
  if (!tags) {
    record.text += '\n';
    return write_out(record.text);
  }
  std::string row = std::to_string(record.number) + '\t' + hex_text(record.hash, 16) + '\t' + tag_text(record.tag) +
                    '\t' + std::to_string(record.attempt) + '\t';
  text_escape(row, record.text);
  row += '\n';
  return write_out(row);
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

int status_command(const std::string &socket_path, bool as_json)
{
  control_client client;
  json reply;
  const int code = client.request(socket_path, {{"op", "status"}}, reply);
  if (code != EXIT_OK) {
    return code;
  }
  const json &status = reply.at("status");
  return write_out(as_json ? status.dump(2) + '\n' : status_text(status)) ? EXIT_OK : EXIT_RUNTIME;
}

int journal_command(const std::string &socket_path, const journal_options &options)
{
  file_record record;
  return print_stream(socket_path, {{"op", "journal"}, {"from", options.from}, {"follow", options.follow}},
                      options.follow,
                      [&](const std::string &line) { return print_record(line, options.tags, record); });
}

int say_command(const std::string &socket_path, const std::string &text)
{
  return simple_command(socket_path, {{"op", "say"}, {"text", text}});
}

int heard_command(const std::string &socket_path, bool follow)
{
  return print_stream(socket_path, {{"op", "heard"}, {"follow", follow}}, follow, print_heard);
}

int start_command(const std::string &socket_path)
{
  return simple_command(socket_path, {{"op", "start"}});
}

int leave_command(const std::string &socket_path)
{
  return simple_command(socket_path, {{"op", "leave"}});
}

int reinit_command(const std::string &socket_path)
{
  return simple_command(socket_path, {{"op", "reinit"}});
}

int slow_command(const std::string &socket_path, const std::string &hook, uint32_t wait_ms)
{
  return simple_command(socket_path, {{"op", "slow"}, {"hook", hook}, {"ms", wait_ms}});
}

int load_command(const std::string &socket_path, const load_options &options, bool as_json)
{
  control_client client;
  json reply;
  const int code = client.request(socket_path,
                                  {{"op", "load"},
                                   {"threads", options.threads},
                                   {"bytes", options.payload_bytes},
                                   {"count", options.count},
                                   {"seconds", options.seconds},
                                   {"pause_ms", options.pause_ms},
                                   {"repeat", options.repeat},
                                   {"timeout_s", options.timeout_s}},
                                  reply);
  if (code != EXIT_OK) {
    return code;
  }
  std::string line;
  if (client.read_line(line) != read_result::line) {
    fprintf(stderr, "kesh load: the daemon went away\n");
    return EXIT_RUNTIME;
  }
  const json totals = json::parse(line);
  const auto acknowledged = totals.at("acknowledged").get<uint64_t>();
  const auto lines = totals.at("lines").get<uint64_t>();
  const auto elapsed_s = totals.at("seconds").get<double>();
  if (as_json) {
    printf("%s\n", line.c_str());
  } else {
    printf("%" PRIu64 " of %" PRIu64 " lines acknowledged in %.2f s, %.1f lines/s, %" PRIu64 " attempts\n",
           acknowledged, lines, elapsed_s, static_cast<double>(acknowledged) / elapsed_s,
           totals.at("attempts").get<uint64_t>());
  }
  return acknowledged == lines ? EXIT_OK : EXIT_REFUSED;
}

int stop_command(const std::string &socket_path)
{
  control_client client;
  json reply;
  const int code = client.request(socket_path, {{"op", "stop"}}, reply);
  std::string line;
  while (code == EXIT_OK && client.read_line(line) == read_result::line) {
  }
  return code;
}

int block_command(const std::string &socket_path, const std::vector<uint32_t> &nodes)
{
  uint32_t mask = 0;
  for (const uint32_t node : nodes) {
    mask |= 1u << (node - 1);
  }
  return simple_command(socket_path, {{"op", "block"}, {"mask", mask}});
}

}  // namespace kesh
