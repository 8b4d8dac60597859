/// The UDP sockets of the messaging service. All are non-blocking. On failure `error` says what and why and the
/// descriptor is empty.
#pragma once

#include "messaging_settings.h"
#include "unique_fd.h"

#include <netinet/in.h>

namespace platform
{

/// Receives what is sent to this node on the channel, as soon as this node has its address. Fails if another process
/// acts as this node.
unique_fd open_unicast_receiver(const messaging_settings &settings, uint32_t channel, std::string &error);
/// Receives what is sent to the group on the channel once it has joined it. All nodes on this machine can do so at
/// once.
unique_fd open_group_receiver(const messaging_settings &settings, uint32_t channel, std::string &error);
/// Sends from the node's own address, as soon as it has that, to nodes and, once set_group_interface has said by which
/// way, to the group; what goes to the group comes back too.
unique_fd open_sender(const messaging_settings &settings, std::string &error);

/// The same, but what is longer than a packet of the interface is refused (EMSGSIZE), and nobody on the way may divide
/// the rest.
unique_fd open_unfragmented_sender(const messaging_settings &settings, std::string &error);

/// On the interface of that index. 0 or the error. Other threads may use the socket.
int join_group(const unique_fd &group_receiver, unsigned interface);
/// Also if that interface is gone: the membership of the socket is not.
void leave_group(const unique_fd &group_receiver, unsigned interface);
/// What the sender sends to the group leaves by the interface of that index. 0 or the error. Other threads may send.
int set_group_interface(const unique_fd &sender, unsigned interface);

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
