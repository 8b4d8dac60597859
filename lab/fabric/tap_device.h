/// TAP devices in other network namespaces.
#pragma once

#include "unique_fd.h"

#include <array>
#include <cstdint>
#include <string>

namespace fabric
{

struct tap_settings {
  uint32_t node = 0;
  std::string netns;    // file of the namespace: /proc/PID/ns/net, /run/netns/NAME
  std::string device;   // name of the interface
  std::string address;  // IPv4 address and prefix length, "10.81.0.1/24"; empty: none
};

using mac_address = std::array<uint8_t, 6>;
/// 02:00:51:00:00:NN
mac_address tap_mac(uint32_t node);

/// "N=NETNS:DEVICE" or "N=NETNS:DEVICE:ADDRESS/PREFIX"; a NETNS without "/" stands for /run/netns/NETNS. Throws
/// std::invalid_argument.
tap_settings parse_tap(const std::string &text);

/// Makes the device in the namespace, gives it its addresses and brings it up. It goes when the descriptor is closed.
/// The process must have one thread and the right to enter the namespace. Throws std::runtime_error.
platform::unique_fd open_tap(const tap_settings &settings);

}  // namespace fabric
