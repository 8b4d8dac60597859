/// What the messaging service reads from the configuration.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform_keys.h"
#include "seal/seal_keys.h"

namespace platform
{

/// Addresses are IPv4 in network byte order.
struct messaging_settings {
  uint32_t node_id = 0;                                                     ///< cluster.node_id, 1 to 16
  uint16_t port_base{config_default(platform_key("messaging.port_base"))};  ///< channel n uses port_base + n
  std::array<uint32_t, NODES_MAX> node_address;  ///< messaging.node[1..16].address; default 127.1.0.n
  std::string interface;                         ///< messaging.interface, a name; empty: by address
  uint32_t interface_address = 0;                ///< the same as an address; 0: the own one
  uint32_t interval_ms{config_default(platform_key("messaging.interval_ms"))};
  uint32_t receive_buffer{config_default(platform_key("messaging.receive_buffer"))};  ///< bytes, per socket
  uint8_t multicast_ttl{config_default(platform_key("messaging.multicast_ttl"))};
  bool is_multicast = true;         ///< messaging.group: 224.0.0.81, or none: what is for all goes to each node
  uint32_t node_count = NODES_MAX;  ///< cluster.node._s_
  seal_keys keys;                   ///< of the file messaging.keys; unset: none

  messaging_settings();
  uint32_t own_address() const { return node_address[node_id - 1]; }
};

/// The group of all nodes, and the name 127.1.0.n of a node.
inline constexpr uint32_t GROUP_ADDRESS = 0x510000e0;
constexpr uint32_t node_name(uint32_t node_id)
{
  return 127 | 1 << 8 | node_id << 24;
}

/// The address behind a destination as the library gives it: a name or the group. False if it is neither.
bool real_address(const messaging_settings &settings, uint32_t destination, uint32_t &address);
/// The node with that real address, 0 if none has it.
uint32_t node_of_address(const messaging_settings &settings, uint32_t address);
std::string address_text(uint32_t address);

/// Of the key file, if one is named.
bool messaging_read_keys(seal_keys &keys, std::string &error);
/// Why the node cannot have its address of `all`: a node of a lower number has it. Empty: it can.
std::string address_clash(const std::array<uint32_t, NODES_MAX> &all, uint32_t node_id);
/// The address in network byte order, as `is_node_address` takes it; 0 if it is none.
uint32_t node_address_of(std::string_view text);

/// Real address of a node as configured, 1 to 16.
std::string messaging_address(uint32_t node_id);

/// On a bad value returns false and `error` names file, line, key and why.
bool messaging_read_settings(messaging_settings &settings, std::string &error);

}  // namespace platform
