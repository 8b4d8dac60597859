#include "commands.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <stdexcept>

namespace fabric
{
namespace
{

using nlohmann::json;

constexpr double DELAY_MAX_MS = 600'000;

/// The fields of one JSON object; every complaint names the key.
class fields
{
public:
  fields(const json &object, std::initializer_list<const char *> known) : object_(object)
  {
    if (!object.is_object()) {
      throw std::invalid_argument("an object is expected, not " + object.dump());
    }
    for (const auto &entry : object.items()) {
      if (std::find(known.begin(), known.end(), entry.key()) == known.end()) {
        throw std::invalid_argument("unknown key \"" + entry.key() + "\"");
      }
    }
  }

  bool has(const char *key) const { return object_.contains(key); }
  const json &at(const char *key) const
  {
    if (!has(key)) {
      throw std::invalid_argument("\"" + std::string(key) + "\" is missing");
    }
    return object_.at(key);
  }
  uint64_t number(const char *key, uint64_t low, uint64_t high) const { return number(key, at(key), low, high); }
  uint64_t number_or(const char *key, uint64_t low, uint64_t high, uint64_t otherwise) const
  {
    return has(key) ? number(key, low, high) : otherwise;
  }
  uint32_t node_or_any(const char *key) const { return static_cast<uint32_t>(number_or(key, 0, NODES_MAX, 0)); }
  uint32_t node(const char *key) const { return static_cast<uint32_t>(number(key, 1, NODES_MAX)); }
  double real(const char *key, const json &value, double high) const
  {
    if (!value.is_number() || value.get<double>() < 0 || value.get<double>() > high) {
      throw std::invalid_argument("\"" + std::string(key) + "\" is " + value.dump() + ", not a number from 0 to " +
                                  json(high).dump());
    }
    return value.get<double>();
  }
  double probability(const char *key) const { return has(key) ? real(key, at(key), 1) : 0; }
  std::string text(const char *key) const
  {
    if (!at(key).is_string()) {
      throw std::invalid_argument("\"" + std::string(key) + "\" is " + at(key).dump() + ", not a text");
    }
    return at(key).get<std::string>();
  }
  /// The two elements of an array.
  std::pair<json, json> pair(const char *key) const { return pair(key, at(key)); }
  static std::pair<json, json> pair(const char *key, const json &value)
  {
    if (!value.is_array() || value.size() != 2) {
      throw std::invalid_argument("\"" + std::string(key) + "\": " + value.dump() + " is not a pair");
    }
    return {value[0], value[1]};
  }
  static uint64_t number(const char *key, const json &value, uint64_t low, uint64_t high)
  {
    if (!value.is_number_unsigned() || value.get<uint64_t>() < low || value.get<uint64_t>() > high) {
      throw std::invalid_argument("\"" + std::string(key) + "\" is " + value.dump() + ", not a whole number from " +
                                  std::to_string(low) + " to " + std::to_string(high));
    }
    return value.get<uint64_t>();
  }

private:
  const json &object_;
};

const json &array_at(const fields &from, const char *key)
{
  if (!from.at(key).is_array()) {
    throw std::invalid_argument("\"" + std::string(key) + "\" is no array");
  }
  return from.at(key);
}

delivery_filter read_filter(const fields &from)
{
  delivery_filter filter;
  filter.from = from.node_or_any("from");
  filter.to = from.node_or_any("to");
  filter.channel = static_cast<uint32_t>(from.number_or("channel", 0, CHANNELS_MAX, 0));
  if (filter.channel == 1 || filter.channel == 2) {
    throw std::invalid_argument("\"channel\" is " + std::to_string(filter.channel) + ", not 0 or 3 to 7");
  }
  const std::string type = from.has("type") ? from.text("type") : "*";
  filter.type = type_of_name(type);
  if (type != "*" && !filter.type) {
    throw std::invalid_argument("\"type\" is \"" + type + "\", which is no type");
  }
  return filter;
}

fault_rule read_rule(const json &object)
{
  const fields from(object, {"from", "to", "channel", "type", "loss", "dup", "delay_ms", "reorder"});
  fault_rule rule;
  rule.filter = read_filter(from);
  rule.loss = from.probability("loss");
  rule.dup = from.probability("dup");
  rule.reorder = from.probability("reorder");
  if (from.has("delay_ms")) {
    const auto [low, high] = from.pair("delay_ms");
    rule.delay_min_ns = std::llround(from.real("delay_ms", low, DELAY_MAX_MS) * double{MS_NS});
    rule.delay_max_ns = std::llround(from.real("delay_ms", high, DELAY_MAX_MS) * double{MS_NS});
    if (rule.delay_min_ns > rule.delay_max_ns) {
      throw std::invalid_argument("\"delay_ms\": the first is greater than the second");
    }
  }
  return rule;
}

json read_and_set_rules(network &net, const json &command)
{
  std::vector<fault_rule> rules;
  const fields from(command, {"do", "rules"});
  for (const json &one : array_at(from, "rules")) {
    rules.push_back(read_rule(one));
  }
  net.set_rules(std::move(rules));
  return json::object();
}

json read_and_set_cuts(network &net, const json &command)
{
  std::vector<std::pair<uint32_t, uint32_t>> pairs;
  const fields from(command, {"do", "pairs"});
  for (const json &one : array_at(from, "pairs")) {
    const auto [sender, receiver] = fields::pair("pairs", one);
    pairs.emplace_back(fields::number("pairs", sender, 1, NODES_MAX), fields::number("pairs", receiver, 1, NODES_MAX));
  }
  net.set_cuts(pairs);
  return json::object();
}

}  // namespace

json commands::tap(const json &command)
{
  const fields from(command, {"do", "node", "netns", "device", "address"});
  tap_settings settings{from.node("node"), from.text("netns"), from.text("device"), ""};
  if (from.has("address")) {
    settings.address = from.text("address");
  }
  taps_.add(settings);
  std::string mac;
  for (const uint8_t byte : tap_mac(settings.node)) {
    const char *const digits = "0123456789abcdef";
    mac += mac.empty() ? "" : ":";
    mac += {digits[byte >> 4], digits[byte & 15]};
  }
  return {{"mac", mac}};
}

json commands::carry_out(const json &command)
{
  if (!command.is_object() || !command.contains("do") || !command["do"].is_string()) {
    throw std::invalid_argument("a command is an object with a text \"do\"");
  }
  const std::string what = command["do"];
  if (what == "rules") {
    return read_and_set_rules(network_, command);
  }
  if (what == "cut") {
    return read_and_set_cuts(network_, command);
  }
  if (what == "stats") {
    const fields from(command, {"do"});
    return {{"stats", network_.stats()}};
  }
  if (what == "bandwidth") {
    network_.set_bandwidth(fields(command, {"do", "bytes_per_s"}).number("bytes_per_s", 0, INT64_MAX));
    return json::object();
  }
  if (what == "tap") {
    return tap(command);
  }
  if (what == "quit") {
    const fields from(command, {"do"});
    is_quit_wanted_ = true;
    return json::object();
  }
  throw std::invalid_argument("\"do\" is \"" + what + "\", which is no command");
}

json commands::run(const std::string &line)
{
  json answer;
  try {
    answer = carry_out(json::parse(line));
    answer["ok"] = true;
  } catch (const std::exception &refusal) {
    answer = {{"ok", false}, {"error", refusal.what()}};
  }
  answer["t"] = now_ns();
  return answer;
}

}  // namespace fabric
