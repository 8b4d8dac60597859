#include "transport.h"

#include "sockets.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace platform
{
namespace
{

constexpr size_t SLOT_SIZE = 65536;  // no datagram is longer, so none is cut

}  // namespace

struct transport::receive_batch {
  struct overflow_control {
    alignas(cmsghdr) uint8_t bytes[CMSG_SPACE(sizeof(uint32_t))];
  };
  std::array<mmsghdr, BATCH> headers;
  std::array<iovec, BATCH> parts;
  std::array<sockaddr_in, BATCH> from;
  std::array<overflow_control, BATCH> control;
  std::array<arrival, BATCH> arrived;
  // Untouched pages cost nothing; few datagrams are long.
  std::unique_ptr<uint8_t[]> slots{new uint8_t[BATCH * SLOT_SIZE]};

  uint8_t *slot(size_t i) const { return slots.get() + i * SLOT_SIZE; }
  void prepare()
  {
    for (size_t i = 0; i < BATCH; ++i) {
      parts[i] = {slot(i), SLOT_SIZE};
      headers[i] = {};
      msghdr &header = headers[i].msg_hdr;
      header.msg_name = &from[i];
      header.msg_namelen = sizeof from[i];
      header.msg_iov = &parts[i];
      header.msg_iovlen = 1;
      header.msg_control = &control[i];
      header.msg_controllen = sizeof control[i];
    }
  }
};

transport::transport() : batch_(std::make_unique<receive_batch>()) {}
transport::~transport() = default;

bool transport::open(const messaging_settings &settings, std::string &error)
{
  settings_ = settings;
  for (uint32_t channel = CHANNEL_FIRST; channel < CHANNEL_FIRST + CHANNEL_COUNT; ++channel) {
    for (const auto open_one : {open_unicast_receiver, open_group_receiver}) {
      source one{open_one(settings, channel, error), channel};
      if (!one.socket) {
        return false;
      }
      input_fds_.push_back(one.socket.get());
      sources_.push_back(std::move(one));
    }
  }
  control_ = open_sender(settings, error);
  bulk_ = control_ ? open_sender(settings, error) : unique_fd();
  bulk_port_ = bulk_ ? bound_port(bulk_) : uint16_t{0};
  return static_cast<bool>(bulk_);
}

size_t transport::send_bulk(message *first, size_t count, int &error)
{
  sockaddr_in to[BATCH];
  iovec parts[BATCH];
  mmsghdr headers[BATCH];
  unsigned filled = 0;
  for (message *one = first; one != nullptr && filled < std::min(count, BATCH); one = one->next, ++filled) {
    to[filled] = address_of(*one);
    parts[filled] = {one->object(), one->datagram_size()};
    headers[filled] = {};
    headers[filled].msg_hdr.msg_name = &to[filled];
    headers[filled].msg_hdr.msg_namelen = sizeof to[filled];
    headers[filled].msg_hdr.msg_iov = &parts[filled];
    headers[filled].msg_hdr.msg_iovlen = 1;
  }
  // sendmmsg reports an error only for its first message. That of a later one comes with the next call.
  const int sent = sendmmsg(bulk_.get(), headers, filled, MSG_NOSIGNAL);
  error = sent < 0 ? errno : 0;
  return sent < 0 ? 0 : static_cast<size_t>(sent);
}

arrivals transport::receive(size_t input)
{
  source &from = sources_[input];
  batch_->prepare();
  arrivals result;
  const int received = recvmmsg(from.socket.get(), batch_->headers.data(), BATCH, MSG_DONTWAIT, nullptr);
  const size_t count = received < 0 ? 0 : static_cast<size_t>(received);
  for (size_t i = 0; i < count; ++i) {
    const sockaddr_in &address = batch_->from[i];
    const bool is_own_piece = address.sin_port == bulk_port_ && address.sin_addr.s_addr == settings_.own_address();
    batch_->arrived[i] = {batch_->slot(i), batch_->headers[i].msg_len, from.channel, address.sin_addr.s_addr,
                          is_own_piece};
    const cmsghdr *extra = CMSG_FIRSTHDR(&batch_->headers[i].msg_hdr);
    if (extra != nullptr && extra->cmsg_level == SOL_SOCKET && extra->cmsg_type == SO_RXQ_OVFL) {
      uint32_t lost = 0;
      memcpy(&lost, CMSG_DATA(extra), sizeof lost);
      result.lost += lost - from.overflow_seen;
      from.overflow_seen = lost;
    }
  }
  result.all = {batch_->arrived.data(), count};
  return result;
}

sockaddr_in transport::address_of(const message &one) const
{
  uint32_t address = 0;
  real_address(settings_, one.destination, address);
  return socket_address(address, static_cast<uint16_t>(settings_.port_base + one.channel));
}

int transport::send_from(const unique_fd &socket, message &one) const
{
  const sockaddr_in to = address_of(one);
  const ssize_t sent = sendto(socket.get(), one.object(), one.datagram_size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr *>(&to), sizeof to);
  return sent < 0 ? errno : 0;
}

void transport::wait_for_room(int wait_ms) const
{
  pollfd room{bulk_.get(), POLLOUT, 0};
  poll(&room, 1, wait_ms);
}

size_t transport::receive_buffer() const
{
  size_t smallest = SIZE_MAX;
  for (const source &one : sources_) {
    smallest = std::min(smallest, granted_receive_buffer(one.socket));
  }
  return smallest;
}

}  // namespace platform
