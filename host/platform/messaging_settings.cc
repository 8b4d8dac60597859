#include "messaging_settings.h"

#include "platform.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <bit>

namespace platform
{
namespace
{

static_assert(std::endian::native == std::endian::little, "addresses are put together as on a little-endian node");

bool parse_address(std::string_view text, uint32_t &address)
{
  in_addr parsed;
  if (inet_pton(AF_INET, std::string(text).c_str(), &parsed) != 1) {
    return false;
  }
  address = parsed.s_addr;
  return true;
}

template <typename Number>
bool read(const config_key &key, Number &value, std::string &error)
{
  int64_t number = 0;
  if (!config_number(key, number, error)) {
    return false;
  }
  value = static_cast<Number>(number);
  return true;
}

std::string address_key(uint32_t node_id)
{
  return "messaging.node[" + std::to_string(node_id) + "].address";
}

bool read_addresses(messaging_settings &settings, std::string &error)
{
  for (uint32_t node_id = 1; node_id <= NODES_MAX; ++node_id) {
    const std::string key = address_key(node_id);
    uint32_t &address = settings.node_address[node_id - 1];
    const std::string text = messaging_address(node_id);
    std::string why = config_fault(platform_key("messaging.node[].address"), text);
    if (why.empty()) {
      address = node_address_of(text);
      why = address_clash(settings.node_address, node_id);
    }
    if (!why.empty()) {
      return config_refuse(key, why, error);
    }
  }
  return true;
}

bool read_count(messaging_settings &settings, std::string &error)
{
  uint32_t count = 0;
  if (!read(platform_key("cluster.node._s_"), count, error)) {
    return false;
  }
  settings.node_count = count == 0 ? NODES_MAX : count;
  return true;
}

bool read_interface(messaging_settings &settings, std::string &error)
{
  std::string text;
  if (!config_text(platform_key("messaging.interface"), text, error)) {
    return false;
  }
  if (!parse_address(text, settings.interface_address)) {
    settings.interface = text;
  }
  return true;
}

}  // namespace

messaging_settings::messaging_settings()
{
  for (uint32_t index = 0; index < NODES_MAX; ++index) {
    node_address[index] = node_name(index + 1);
  }
}

bool real_address(const messaging_settings &settings, uint32_t destination, uint32_t &address)
{
  const uint32_t node_id = destination >> 24;
  if (destination == GROUP_ADDRESS) {
    address = destination;
  } else if (node_id >= 1 && node_id <= NODES_MAX && destination == node_name(node_id)) {
    address = settings.node_address[node_id - 1];
  } else {
    return false;
  }
  return true;
}

uint32_t node_of_address(const messaging_settings &settings, uint32_t address)
{
  for (uint32_t node_id = 1; node_id <= NODES_MAX; ++node_id) {
    if (settings.node_address[node_id - 1] == address) {
      return node_id;
    }
  }
  return 0;
}

std::string address_text(uint32_t address)
{
  char text[INET_ADDRSTRLEN];
  const in_addr raw{address};
  return inet_ntop(AF_INET, &raw, text, sizeof text);
}

bool messaging_read_keys(seal_keys &keys, std::string &error)
{
  const config_key &key = platform_key("messaging.keys");
  std::string path;
  if (!config_text(key, path, error)) {
    return false;
  }
  if (path.empty()) {
    keys = seal_keys();
    return true;
  }
  std::string why;
  return seal_keys_load(path, keys, why) || config_refuse(std::string(key.name), why, error);
}

uint32_t node_address_of(std::string_view text)
{
  uint32_t address = INADDR_ANY;
  return parse_address(text, address) && !IN_MULTICAST(ntohl(address)) ? address : INADDR_ANY;
}

bool is_node_address(std::string_view text)
{
  return node_address_of(text) != INADDR_ANY;
}

bool is_absolute_path(std::string_view text)
{
  return text.starts_with('/');
}

bool is_interface(std::string_view text)
{
  uint32_t address = 0;
  return text.empty() || parse_address(text, address) ||
         (text.size() < IFNAMSIZ && text.find_first_of(" \t/:") == std::string_view::npos);
}

std::string address_clash(const std::array<uint32_t, NODES_MAX> &all, uint32_t node_id)
{
  for (uint32_t other = 1; other < node_id; ++other) {
    if (all[other - 1] == all[node_id - 1]) {
      return address_text(all[node_id - 1]) + " is the address of node " + std::to_string(other);
    }
  }
  return {};
}

std::string messaging_address(uint32_t node_id)
{
  return config_text(address_key(node_id), address_text(node_name(node_id)));
}

bool messaging_read_settings(messaging_settings &settings, std::string &error)
{
  settings = messaging_settings();
  if (config_text("cluster.node_id", "").empty()) {
    return config_refuse("cluster.node_id", "not set", error);
  }
  std::string group;
  if (!config_text(platform_key("messaging.group"), group, error)) {
    return false;
  }
  settings.is_multicast = group != "none";
  return read(platform_key("cluster.node_id"), settings.node_id, error) &&
         read(platform_key("messaging.port_base"), settings.port_base, error) &&
         read(platform_key("messaging.interval_ms"), settings.interval_ms, error) &&
         read(platform_key("messaging.receive_buffer"), settings.receive_buffer, error) &&
         read(platform_key("messaging.multicast_ttl"), settings.multicast_ttl, error) &&
         read_addresses(settings, error) && read_count(settings, error) && read_interface(settings, error) &&
         messaging_read_keys(settings.keys, error);
}

}  // namespace platform
