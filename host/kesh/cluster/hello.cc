#include "cluster/hello.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kesh
{

namespace
{

using nlohmann::json;

constexpr std::array<const char *, 4> ROLES = {"stopped", "follower", "leader", "isolated"};
constexpr std::array<const char *, 4> STANDINGS = {"new", "joined", "member", "reformed"};
constexpr std::string_view DIGITS = "0123456789abcdef";
constexpr size_t MAC_SIZE = 17;

/// Bytes that are no UTF-8 become signs of replacement.
std::string dump(const json &value)
{
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

/// The longest start of the text that takes at most `size` bytes in JSON. Never half a character.
std::string cut_text(std::string text, size_t size)
{
  const auto is_inside = [&](size_t at) { return at < text.size() && (static_cast<uint8_t>(text[at]) & 0xc0) == 0x80; };
  size_t end = std::min(size, text.size());
  while (is_inside(end) && end > 0) {
    --end;
  }
  text.resize(end);
  while (dump(text).size() > size + 2) {
    do {
      --end;
    } while (is_inside(end) && end > 0);
    text.resize(end);
  }
  return text;
}

struct unreadable : std::runtime_error {
  unreadable() : std::runtime_error("no hello") {}
};

void demand(bool holds)
{
  if (!holds) {
    throw unreadable();
  }
}

/// The fields of an object, each checked for its kind and range.
class field_reader
{
public:
  explicit field_reader(const json &from) : from_(from) {}

  template <typename number>
  number in_range(const char *key, number low, number high) const
  {
    return as_number<number>(at(key), low, high);
  }
  template <typename number>
  number any(const char *key) const
  {
    return in_range<number>(key, 0, std::numeric_limits<number>::max());
  }
  bool flag(const char *key) const
  {
    demand(at(key).is_boolean());
    return at(key).get<bool>();
  }
  const std::string &text(const char *key, size_t size_max) const
  {
    demand(at(key).is_string());
    const auto &value = at(key).get_ref<const std::string &>();
    demand(value.size() <= size_max);
    return value;
  }
  chain_hash hash(const char *key) const
  {
    chain_hash value{};
    const std::string &digits = text(key, 2 * value.size());
    demand(digits.size() == 2 * value.size() && digits.find_first_not_of(DIGITS) == std::string::npos);
    for (size_t i = 0; i < value.size(); ++i) {
      value[i] = static_cast<uint8_t>(DIGITS.find(digits[2 * i]) << 4 | DIGITS.find(digits[2 * i + 1]));
    }
    return value;
  }
  const json &at(const char *key) const
  {
    const auto found = from_.find(key);
    demand(found != from_.end());
    return *found;
  }

  template <typename number>
  static number as_number(const json &value, number low, number high)
  {
    demand(value.is_number_unsigned());
    const auto wide = value.get<uint64_t>();
    demand(wide >= low && wide <= high);
    return static_cast<number>(wide);
  }

private:
  const json &from_;
};

std::string read_mac(const field_reader &from)
{
  const std::string &mac = from.text("mac", MAC_SIZE);
  demand(mac.size() == MAC_SIZE);
  for (size_t i = 0; i < MAC_SIZE; ++i) {
    demand(i % 3 == 2 ? mac[i] == ':' : DIGITS.find(mac[i]) != std::string_view::npos);
  }
  return mac;
}

node_role read_role(const field_reader &from)
{
  const std::string &name = from.text("role", 16);
  for (size_t i = 0; i < ROLES.size(); ++i) {
    if (name == ROLES[i]) {
      return static_cast<node_role>(i);
    }
  }
  throw unreadable();
}

std::vector<heard_line> read_heard(const json &from)
{
  demand(from.is_array() && from.size() <= HELLO_NODES_MAX);
  std::vector<heard_line> lines;
  for (const json &one : from) {
    demand(one.is_array() && one.size() == 4);
    const auto field = [&one](size_t at) { return field_reader::as_number<uint32_t>(one[at], 0, UINT32_MAX); };
    lines.push_back({field_reader::as_number<uint32_t>(one[0], 1, HELLO_NODES_MAX), field(1), field(2), field(3)});
  }
  return lines;
}

standing read_standing(const field_reader &from)
{
  const auto read = standing_of(from.text("standing", 16));
  demand(read.has_value());
  return *read;
}

std::optional<message_ids> read_ids(const json &from, uint32_t node_count)
{
  if (from.is_null()) {
    return std::nullopt;
  }
  demand(from.is_array() && from.size() == node_count);
  message_ids ids{};
  for (size_t i = 0; i < from.size(); ++i) {
    ids[i] = field_reader::as_number<uint32_t>(from[i], 0, UINT32_MAX);
  }
  return ids;
}

json ids_field(const hello &from)
{
  return from.ids ? json(std::vector(from.ids->begin(), from.ids->begin() + from.node_count)) : json(nullptr);
}

told_position read_position(const field_reader &from)
{
  told_position read;
  read.store = from.any<uint64_t>("store");
  read.complete = from.flag("complete");
  read.n = from.any<uint64_t>("n");
  read.hash = from.hash("hash");
  if (!from.at("checkpoint_hash").is_null()) {
    read.checkpoint_hash = from.hash("checkpoint_hash");
  }
  return read;
}

}  // namespace

const char *node_role_name(node_role role)
{
  return ROLES[static_cast<size_t>(role)];
}

const char *standing_name(standing of)
{
  return STANDINGS[static_cast<size_t>(of)];
}

std::optional<standing> standing_of(std::string_view name)
{
  for (size_t i = 0; i < STANDINGS.size(); ++i) {
    if (name == STANDINGS[i]) {
      return static_cast<standing>(i);
    }
  }
  return std::nullopt;
}

std::string hello_encode(hello from)
{
  json heard = json::array();
  for (const heard_line &one : from.heard) {
    heard.push_back({one.node, one.age_ms, one.session, one.before});
  }
  const told_position &position = from.position;
  json fields = {
      {"cluster", from.cluster.name},
      {"mac", from.cluster.first_mac},
      {"generation", from.cluster.generation},
      {"build", from.build},
      {"nodes", from.node_count},
      {"state_max", from.state_max},
      {"node", from.node},
      {"session", from.session},
      {"number", from.number},
      {"role", node_role_name(from.role)},
      {"standing", standing_name(from.stands)},
      {"decision", from.decision},
      {"top", from.top},
      {"store", position.store},
      {"complete", position.complete},
      {"n", position.n},
      {"hash", hash_text(position.hash)},
      {"checkpoint_hash", position.checkpoint_hash ? json(hash_text(*position.checkpoint_hash)) : json(nullptr)},
      {"handled", from.handled},
      {"could_lead", from.could_lead},
      {"ids", ids_field(from)},
      {"reason", ""},
      {"heard", heard}};
  const size_t size = dump(fields).size();
  fields["reason"] = cut_text(std::move(from.reason), HELLO_MAX - std::min(size, HELLO_MAX));
  return dump(fields);
}

std::optional<hello> hello_decode(std::string_view bytes)
{
  const json object = bytes.size() <= HELLO_MAX ? json::parse(bytes, nullptr, false) : json();
  if (!object.is_object()) {
    return std::nullopt;
  }
  try {
    const field_reader from(object);
    hello read;
    read.cluster = {from.text("cluster", CLUSTER_NAME_MAX), read_mac(from), from.any<uint64_t>("generation")};
    read.build = from.any<uint32_t>("build");
    read.node_count = from.in_range<uint32_t>("nodes", 1, HELLO_NODES_MAX);
    read.state_max = from.any<uint64_t>("state_max");
    read.node = from.in_range<uint32_t>("node", 1, read.node_count);
    read.session = from.any<uint32_t>("session");
    read.number = from.any<uint64_t>("number");
    read.role = read_role(from);
    read.stands = read_standing(from);
    read.decision = from.any<uint32_t>("decision");
    read.top = from.any<uint32_t>("top");
    read.position = read_position(from);
    read.handled = from.flag("handled");
    read.could_lead = object.contains("could_lead") && from.flag("could_lead");
    read.ids = read_ids(from.at("ids"), read.node_count);
    read.reason = from.text("reason", HELLO_MAX);
    read.heard = read_heard(from.at("heard"));
    return read;
  } catch (const unreadable &) {
    return std::nullopt;
  }
}

}  // namespace kesh
