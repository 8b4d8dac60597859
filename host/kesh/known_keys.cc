#include "known_keys.h"

#include <algorithm>
#include <fstream>
#include <string_view>

#include "platform.h"

namespace kesh
{

namespace
{

// [] stands for any number in brackets.
constexpr std::string_view KNOWN[] = {"kesh.socket",
                                      "kesh.start",
                                      "kesh.store",
                                      "state.max",
                                      "retention.lines",
                                      "retention.bytes",
                                      "retention.age_s",
                                      "journal.file",
                                      "log.level",
                                      "log.file",
                                      "log.max_size",
                                      "log.files",
                                      "log.queue",
                                      "messaging.port_base",
                                      "messaging.node[].address",
                                      "messaging.group",
                                      "messaging.interface",
                                      "messaging.keys",
                                      "messaging.multicast_ttl",
                                      "messaging.interval_ms",
                                      "messaging.receive_buffer"};

std::string key_of(const std::string &line)
{
  const size_t begin = line.find_first_not_of(" \t");
  if (begin == std::string::npos || line[begin] == '#') {
    return {};
  }
  return line.substr(begin, line.find_first_of(" \t=", begin) - begin);
}

bool is_ours(const std::string &key)
{
  const std::string group = key.substr(0, key.find('.'));
  return std::any_of(std::begin(KNOWN), std::end(KNOWN),
                     [&](std::string_view known) { return known.substr(0, known.find('.')) == group; });
}

/// The key with the numbers in brackets left out.
std::string without_numbers(const std::string &key)
{
  std::string result;
  bool inside = false;
  for (const char letter : key) {
    inside = inside && letter != ']';
    if (!inside || letter < '0' || letter > '9') {
      result += letter;
    }
    inside = inside || letter == '[';
  }
  return result;
}

}  // namespace

void warn_of_unknown_keys(const std::string &config_path)
{
  std::ifstream file(config_path);
  std::string line;
  for (size_t number = 1; std::getline(file, line); number++) {
    const std::string key = key_of(line);
    if (is_ours(key) && std::find(std::begin(KNOWN), std::end(KNOWN), without_numbers(key)) == std::end(KNOWN)) {
      std::string text = config_path;
      text.append(":").append(std::to_string(number)).append(": ").append(key).append(": not known, without effect");
      platform::log_line(platform::log_level::warning, text);
    }
  }
}

}  // namespace kesh
