#include "network_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace platform
{
namespace
{

constexpr size_t DATAGRAM_ROOM = 32768;  // the kernel makes none longer

template <typename Head>
bool read_head(std::span<const uint8_t> bytes, Head &to)
{
  if (bytes.size() < sizeof to) {
    return false;
  }
  memcpy(&to, bytes.data(), sizeof to);
  return true;
}

bool read_one(uint16_t type, std::span<const uint8_t> body, network_news &to)
{
  switch (type) {
  case RTM_NEWADDR:
  case RTM_DELADDR:
    to.is_any = true;
    return true;
  case RTM_NEWLINK:
  case RTM_DELLINK: {
    ifinfomsg link;
    if (!read_head(body, link)) {
      return false;
    }
    to.is_any = true;
    // A bridge says the same of a port that only leaves it.
    if (type == RTM_DELLINK && link.ifi_family == AF_UNSPEC) {
      to.gone.push_back(static_cast<unsigned>(link.ifi_index));
    }
    return true;
  }
  default:
    return true;
  }
}

}  // namespace

void read_network_news(std::span<const uint8_t> datagram, network_news &to)
{
  while (!datagram.empty()) {
    nlmsghdr head;
    if (!read_head(datagram, head) || head.nlmsg_len < NLMSG_HDRLEN || head.nlmsg_len > datagram.size() ||
        !read_one(head.nlmsg_type, datagram.subspan(NLMSG_HDRLEN, head.nlmsg_len - NLMSG_HDRLEN), to)) {
      to.has_lost = true;
      return;
    }
    datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(head.nlmsg_len), datagram.size()));
  }
}

bool network_watch::open(std::string &error)
{
  socket_ = unique_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl name{};
  name.nl_family = AF_NETLINK;
  name.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
  if (!socket_ || bind(socket_.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0) {
    error = "messaging: the interfaces cannot be watched: " + std::generic_category().message(errno);
    socket_.reset();
  }
  return static_cast<bool>(socket_);
}

network_news network_watch::take()
{
  network_news told;
  std::array<uint8_t, DATAGRAM_ROOM> bytes;
  for (;;) {
    const ssize_t size = recv(socket_.get(), bytes.data(), bytes.size(), MSG_TRUNC);
    if (size < 0) {
      if (errno != ENOBUFS && errno != EINTR) {
        return told;
      }
      told.has_lost |= errno == ENOBUFS;
    } else if (static_cast<size_t>(size) > bytes.size()) {
      told.has_lost = true;
    } else {
      read_network_news({bytes.data(), static_cast<size_t>(size)}, told);
    }
  }
}

}  // namespace platform
