#include "transport.h"

#include "sockets.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace platform
{
namespace
{

constexpr size_t SLOT_SIZE = 65536;  // no datagram is longer, so none is cut
constexpr size_t PIECE_ROOM = PIECE_DATAGRAM_MAX + SEAL_OVERHEAD;

int send_bytes(const unique_fd &socket, std::span<const uint8_t> bytes, const sockaddr_in &to)
{
  const ssize_t sent = sendto(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr *>(&to), sizeof to);
  return sent < 0 ? errno : 0;
}

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

transport::transport(sealing &seals)
    : seals_(seals), batch_(std::make_unique<receive_batch>()), sealed_pieces_(new uint8_t[BATCH * PIECE_ROOM])
{
}
transport::~transport() = default;

bool transport::open(const messaging_settings &settings, std::string &error)
{
  settings_ = settings;
  group_ = {GROUP_ADDRESS};
  if (!settings.is_multicast) {
    group_.assign(settings.node_address.begin(), settings.node_address.begin() + settings.node_count);
  }
  for (uint32_t channel = CHANNEL_FIRST; channel < CHANNEL_FIRST + CHANNEL_COUNT; ++channel) {
    for (const auto open_one : {open_unicast_receiver, open_group_receiver}) {
      if (open_one == open_group_receiver && !settings.is_multicast) {
        continue;
      }
      source one{open_one(settings, channel, error), channel, open_one == open_group_receiver};
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
  unfragmented_ = bulk_ ? open_unfragmented_sender(settings, error) : unique_fd();
  return static_cast<bool>(unfragmented_);
}

int transport::join(unsigned interface)
{
  int failure = 0;
  // All leave first: if the interface has the index of one that is gone, leaving that one takes a member off this one.
  for (source &one : sources_) {
    if (one.joined != 0) {
      leave_group(one.socket, std::exchange(one.joined, 0));
    }
  }
  for (source &one : sources_) {
    if (one.is_of_group) {
      const int error = join_group(one.socket, interface);
      one.joined = error == 0 ? interface : 0;
      failure = error != 0 ? error : failure;
    }
  }
  for (const unique_fd *sender : {&control_, &bulk_, &unfragmented_}) {
    const int error = set_group_interface(*sender, interface);
    failure = error != 0 ? error : failure;
  }
  return failure;
}

size_t transport::send_bulk(message *first, size_t count, int &error)
{
  sockaddr_in to[BATCH];
  iovec parts[BATCH];
  mmsghdr headers[BATCH];
  unsigned filled = 0;
  size_t taken = 0;
  std::array<unsigned, BATCH> ends;  // of the headers of each message
  for (message *one = first; one != nullptr && taken < std::min(count, BATCH); one = one->next, ++taken) {
    const auto addresses = addresses_of(*one);
    const auto bytes = filled + addresses.size() > BATCH
                           ? std::span<const uint8_t>()
                           : seals_.seal(*one, {sealed_pieces_.get() + taken * PIECE_ROOM, PIECE_ROOM});
    if (bytes.empty()) {
      break;
    }
    for (const uint32_t address : addresses) {
      to[filled] = socket_address(address, static_cast<uint16_t>(settings_.port_base + one->channel));
      parts[filled] = {const_cast<uint8_t *>(bytes.data()), bytes.size()};
      headers[filled] = {};
      headers[filled].msg_hdr.msg_name = &to[filled];
      headers[filled].msg_hdr.msg_namelen = sizeof to[filled];
      headers[filled].msg_hdr.msg_iov = &parts[filled];
      headers[filled].msg_hdr.msg_iovlen = 1;
      ++filled;
    }
    ends[taken] = filled;
  }
  // sendmmsg reports an error only for its first message. That of a later one comes with the next call.
  const int sent = filled == 0 ? 0 : sendmmsg(bulk_.get(), headers, filled, MSG_NOSIGNAL);
  error = sent < 0 ? errno : 0;
  const auto whole = std::count_if(ends.begin(), ends.begin() + static_cast<ptrdiff_t>(taken),
                                   [sent](unsigned end) { return static_cast<int>(end) <= sent; });
  if (whole != 0 || (error != 0 && group_.size() == 1)) {
    return static_cast<size_t>(whole);
  }
  // The first is too long for the room of a piece, or one of its addresses fails: the others get it.
  error = send_from(bulk_, *first);
  return error == 0 ? 1 : 0;
}

arrivals transport::receive(size_t input)
{
  source &from = sources_[input];
  batch_->prepare();
  arrivals result;
  result.channel = from.channel;
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

std::span<const uint32_t> transport::addresses_of(const message &one) const
{
  // messaging sends to nothing else.
  return one.destination == GROUP_ADDRESS
             ? std::span<const uint32_t>(group_)
             : std::span<const uint32_t>(&settings_.node_address[(one.destination >> 24) - 1], 1);
}

// A node that cannot be reached keeps nothing from the others: only if none of them can be, this fails.
int transport::send_to_all(const unique_fd &socket, std::span<const uint8_t> bytes, std::span<const uint32_t> addresses,
                           uint32_t channel) const
{
  const auto port = static_cast<uint16_t>(settings_.port_base + channel);
  int failure = 0;
  bool is_sent = false;
  for (const uint32_t address : addresses) {
    const int error = send_bytes(socket, bytes, socket_address(address, port));
    if (error == EAGAIN || error == ENOBUFS) {
      return error;
    }
    failure = error != 0 ? error : failure;
    is_sent |= error == 0 && (address != settings_.own_address() || addresses.size() == 1);
  }
  return is_sent ? 0 : failure;
}

int transport::send_from(const unique_fd &socket, const message &one)
{
  // Threads of the library have small stacks. Untouched pages cost nothing.
  thread_local std::unique_ptr<uint8_t[]> room;
  if (!room) {
    room.reset(new (std::nothrow) uint8_t[DATAGRAM_MAX]);
  }
  const auto bytes = room ? seals_.seal(one, {room.get(), DATAGRAM_MAX}) : std::span<const uint8_t>();
  if (bytes.empty()) {
    return one.datagram_size() + SEAL_OVERHEAD > DATAGRAM_MAX ? EMSGSIZE : ENOMEM;
  }
  return send_to_all(socket, bytes, addresses_of(one), one.channel);
}

void transport::greet()
{
  for (const auto &one : seals_.greetings()) {
    send_to_all(control_, one, group_, GREETING_PORT_CHANNEL);
  }
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
