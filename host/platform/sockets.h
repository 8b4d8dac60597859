/// The UDP sockets of the messaging service. All are non-blocking. On failure `error` says what and why and the
/// descriptor is empty.
#pragma once

#include "messaging_settings.h"
#include "unique_fd.h"

#include <netinet/in.h>

namespace platform
{

/// Receives what is sent to this node on the channel. Fails if another process has this node's address.
unique_fd open_unicast_receiver(const messaging_settings &settings, uint32_t channel, std::string &error);
/// Receives what is sent to the group on the channel. All nodes on this machine can do so at once.
unique_fd open_group_receiver(const messaging_settings &settings, uint32_t channel, std::string &error);
/// Sends from the node's own address to nodes and to the group; what goes to the group comes back too.
unique_fd open_sender(const messaging_settings &settings, std::string &error);

/// The receive buffer that the kernel granted, as it counts (about 2300 bytes for a datagram of 1444).
size_t granted_receive_buffer(const unique_fd &socket);
/// The port that the socket is bound to, network order.
uint16_t bound_port(const unique_fd &socket);

inline sockaddr_in socket_address(uint32_t address, uint16_t port_host_order)
{
  sockaddr_in made{};
  made.sin_family = AF_INET;
  made.sin_addr.s_addr = address;
  made.sin_port = htons(port_host_order);
  return made;
}

}  // namespace platform
