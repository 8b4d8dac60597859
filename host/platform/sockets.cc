#include "sockets.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace platform
{
namespace
{

// Room for the pieces of several nodes on a slow link. The kernel's limit applies anyway.
constexpr int SEND_BUFFER = 1 << 20;

template <typename Value>
bool set_option(int fd, int level, int name, const Value &value)
{
  return setsockopt(fd, level, name, &value, sizeof value) == 0;
}

bool bind_to(const unique_fd &fd, uint32_t address, uint16_t port)
{
  // The address may come after us, and go and come again: the socket stays bound to it.
  set_option(fd.get(), IPPROTO_IP, IP_FREEBIND, 1);
  const sockaddr_in name = socket_address(address, port);
  return bind(fd.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0;
}

unique_fd open_udp()
{
  return unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

unique_fd failed(const std::string &what, uint32_t address, uint16_t port, std::string &error)
{
  error = "messaging: " + what + " " + address_text(address) + " port " + std::to_string(port) + ": " +
          std::generic_category().message(errno);
  return {};
}

ip_mreqn group_on_interface(unsigned interface)
{
  ip_mreqn membership{};
  membership.imr_multiaddr.s_addr = GROUP_ADDRESS;
  membership.imr_ifindex = static_cast<int>(interface);
  return membership;
}

// The kernel may grant less: see granted_receive_buffer.
void enlarge_receive_buffer(const unique_fd &fd, uint32_t size)
{
  const int wanted = static_cast<int>(size);
  if (!set_option(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, wanted)) {
    set_option(fd.get(), SOL_SOCKET, SO_RCVBUF, wanted);
  }
}

}  // namespace

unique_fd open_unicast_receiver(const messaging_settings &settings, uint32_t channel, std::string &error)
{
  const auto port = static_cast<uint16_t>(settings.port_base + channel);
  unique_fd fd = open_udp();
  // No SO_REUSEADDR: two processes that act as one node would each get some of its messages.
  if (!fd || !set_option(fd.get(), SOL_SOCKET, SO_RXQ_OVFL, 1) || !bind_to(fd, settings.own_address(), port)) {
    return failed("cannot receive on", settings.own_address(), port, error);
  }
  enlarge_receive_buffer(fd, settings.receive_buffer);
  return fd;
}

unique_fd open_group_receiver(const messaging_settings &settings, uint32_t channel, std::string &error)
{
  const auto port = static_cast<uint16_t>(settings.port_base + channel);
  unique_fd fd = open_udp();
  // A socket bound to the group hears only the group. Without IP_MULTICAST_ALL it hears only the interface it joined
  // on.
  if (!fd || !set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1) || !set_option(fd.get(), SOL_SOCKET, SO_RXQ_OVFL, 1) ||
      !set_option(fd.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0) || !bind_to(fd, GROUP_ADDRESS, port)) {
    return failed("cannot receive on", GROUP_ADDRESS, port, error);
  }
  enlarge_receive_buffer(fd, settings.receive_buffer);
  return fd;
}

unique_fd open_sender(const messaging_settings &settings, std::string &error)
{
  unique_fd fd = open_udp();
  if (!fd || !bind_to(fd, settings.own_address(), 0) || !set_option(fd.get(), IPPROTO_IP, IP_MULTICAST_LOOP, 1) ||
      !set_option(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, int{settings.multicast_ttl})) {
    return failed("cannot send from", settings.own_address(), 0, error);
  }
  set_option(fd.get(), SOL_SOCKET, SO_SNDBUF, SEND_BUFFER);
  return fd;
}

unique_fd open_unfragmented_sender(const messaging_settings &settings, std::string &error)
{
  unique_fd fd = open_sender(settings, error);
  // PROBE, not DO: what the kernel has heard of the path does not count, for that is what is to be found out.
  if (fd && !set_option(fd.get(), IPPROTO_IP, IP_MTU_DISCOVER, int{IP_PMTUDISC_PROBE})) {
    return failed("cannot send whole packets from", settings.own_address(), 0, error);
  }
  return fd;
}

void leave_group(const unique_fd &group_receiver, unsigned interface)
{
  set_option(group_receiver.get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, group_on_interface(interface));
}

int join_group(const unique_fd &group_receiver, unsigned interface)
{
  return set_option(group_receiver.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, group_on_interface(interface)) ? 0 : errno;
}

// This needs neither a multicast route nor the interface's MULTICAST flag, so the loopback interface of a fresh network
// namespace will do once it is up.
int set_group_interface(const unique_fd &sender, unsigned interface)
{
  return set_option(sender.get(), IPPROTO_IP, IP_MULTICAST_IF, group_on_interface(interface)) ? 0 : errno;
}

size_t granted_receive_buffer(const unique_fd &socket)
{
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &size, &length);
  return static_cast<size_t>(size);
}

uint16_t bound_port(const unique_fd &socket)
{
  sockaddr_in name{};
  socklen_t length = sizeof name;
  getsockname(socket.get(), reinterpret_cast<sockaddr *>(&name), &length);
  return name.sin_port;
}

}  // namespace platform
