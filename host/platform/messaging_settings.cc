#include "messaging_settings.h"

#include "message.h"
#include "platform.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <bit>

namespace platform
{
namespace
{

static_assert(std::endian::native == std::endian::little, "addresses are put together as on a little-endian node");

bool parse_address(const std::string &text, uint32_t &address)
{
  in_addr parsed;
  if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) {
    return false;
  }
  address = parsed.s_addr;
  return true;
}

template <typename Number>
bool read(const char *key, int64_t low, int64_t high, Number &value, std::string &error)
{
  int64_t number = value;
  if (!config_number(key, low, high, number, number, error)) {
    return false;
  }
  value = static_cast<Number>(number);
  return true;
}

bool read_addresses(messaging_settings &settings, std::string &error)
{
  for (uint32_t node_id = 1; node_id <= NODES_MAX; ++node_id) {
    const std::string key = "messaging.node[" + std::to_string(node_id) + "].address";
    uint32_t &address = settings.node_address[node_id - 1];
    const std::string text = config_text(key, address_text(address));
    if (!parse_address(text, address) || IN_MULTICAST(ntohl(address)) || address == INADDR_ANY) {
      return config_refuse(key, "\"" + text + "\" is not the IPv4 address of a node", error);
    }
    for (uint32_t other = 1; other < node_id; ++other) {
      if (settings.node_address[other - 1] == address) {
        return config_refuse(key, text + " is the address of node " + std::to_string(other), error);
      }
    }
  }
  return true;
}

bool read_interface(messaging_settings &settings, std::string &error)
{
  const std::string text = config_text("messaging.interface", "");
  if (text.empty() || parse_address(text, settings.interface_address)) {
    return true;
  }
  if (if_nametoindex(text.c_str()) == 0) {
    return config_refuse("messaging.interface", "\"" + text + "\" is neither an interface nor an address", error);
  }
  settings.interface = text;
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

namespace
{

bool read_group(messaging_settings &settings, std::string &error)
{
  const std::string group = address_text(GROUP_ADDRESS);
  const std::string text = config_text("messaging.group", group);
  settings.is_multicast = text != "none";
  return text == group || !settings.is_multicast ||
         config_refuse("messaging.group", "\"" + text + "\" is neither " + group + " nor none", error);
}

}  // namespace

bool messaging_read_keys(seal_keys &keys, std::string &error)
{
  const std::string path = config_text("messaging.keys", "");
  if (path.empty()) {
    keys = seal_keys();
    return true;
  }
  std::string why;
  return seal_keys_load(path, keys, why) || config_refuse("messaging.keys", why, error);
}

bool messaging_read_settings(messaging_settings &settings, std::string &error)
{
  settings = messaging_settings();
  if (config_text("cluster.node_id", "").empty()) {
    return config_refuse("cluster.node_id", "not set", error);
  }
  const int64_t port_max = 65535 - (CHANNEL_FIRST + CHANNEL_COUNT - 1);
  return read("cluster.node_id", 1, NODES_MAX, settings.node_id, error) &&
         read("messaging.port_base", 1024, port_max, settings.port_base, error) &&
         read("messaging.interval_ms", 1, 60'000, settings.interval_ms, error) &&
         read("messaging.receive_buffer", 65536, 1 << 30, settings.receive_buffer, error) &&
         read("messaging.multicast_ttl", 0, 255, settings.multicast_ttl, error) && read_addresses(settings, error) &&
         read_group(settings, error) && read("cluster.node._s_", 1, NODES_MAX, settings.node_count, error) &&
         read_interface(settings, error) && messaging_read_keys(settings.keys, error);
}

}  // namespace platform
