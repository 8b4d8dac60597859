#include "receiver.h"

#include "sockets.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace platform
{
namespace
{
constexpr size_t BATCH = 64;
constexpr size_t SLOT_SIZE = 65536;  // no datagram is longer, so none arrives cut
constexpr uint64_t STOP_TAG = UINT64_MAX;
}  // namespace

struct receiver::batch {
  struct overflow_control {
    alignas(cmsghdr) uint8_t bytes[CMSG_SPACE(sizeof(uint32_t))];
  };
  std::array<mmsghdr, BATCH> headers;
  std::array<iovec, BATCH> parts;
  std::array<sockaddr_in, BATCH> from;
  std::array<overflow_control, BATCH> control;
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

receiver::receiver(messaging_counters &counters, channels &to, bulk_sender &bulk)
    : counters_(counters), to_(to), bulk_(bulk)
{
}

receiver::~receiver() = default;

bool receiver::open(const messaging_settings &settings, std::string &error)
{
  settings_ = settings;
  sources_.clear();
  batch_ = std::make_unique<batch>();
  poll_ = unique_fd(epoll_create1(EPOLL_CLOEXEC));
  stop_event_ = unique_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = STOP_TAG;
  if (!poll_ || !stop_event_ || epoll_ctl(poll_.get(), EPOLL_CTL_ADD, stop_event_.get(), &event) != 0) {
    error = "messaging: " + std::generic_category().message(errno);
    return false;
  }
  for (uint32_t channel = CHANNEL_FIRST; channel < CHANNEL_FIRST + CHANNEL_COUNT; ++channel) {
    for (const auto open_one : {open_unicast_receiver, open_group_receiver}) {
      source one{open_one(settings, channel, error), channel};
      event.data.u64 = sources_.size();
      if (!one.socket) {
        return false;
      }
      if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, one.socket.get(), &event) != 0) {
        error = "messaging: " + std::generic_category().message(errno);
        return false;
      }
      sources_.push_back(std::move(one));
    }
  }
  return true;
}

size_t receiver::granted_buffer() const
{
  size_t smallest = SIZE_MAX;
  for (const source &one : sources_) {
    smallest = std::min(smallest, granted_receive_buffer(one.socket));
  }
  return smallest;
}

void receiver::start(uint16_t bulk_port)
{
  bulk_port_ = bulk_port;
  thread_ = std::thread([this] { run(); });
}

void receiver::stop()
{
  if (thread_.joinable()) {
    const uint64_t one = 1;
    // Cannot fail: the counter is far from its limit.
    [[maybe_unused]] const ssize_t written = write(stop_event_.get(), &one, sizeof one);
    thread_.join();
  }
  sources_.clear();
  poll_.reset();
  stop_event_.reset();
}

void receiver::run()
{
  std::array<epoll_event, 2 * CHANNEL_COUNT + 1> events;
  for (;;) {
    const int count = epoll_wait(poll_.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      const uint64_t tag = events[static_cast<size_t>(i)].data.u64;
      if (tag == STOP_TAG) {
        return;
      }
      read_some(sources_[tag]);
    }
  }
}

bool receiver::is_blocked(const uint8_t *bytes, uint32_t address) const
{
  const uint32_t mask = blocked_.load(std::memory_order_relaxed);
  if (mask == 0) {
    return false;
  }
  uint32_t node_id = node_of_address(settings_, address);
  if (node_id == 0) {
    uint32_t name = 0;
    memcpy(&name, bytes + WORD_SIZE + 12, sizeof name);
    for (uint32_t id = 1; id <= NODES_MAX && node_id == 0; ++id) {
      node_id = name == node_name(id) ? id : 0;
    }
  }
  return node_id != 0 && (mask >> (node_id - 1) & 1) != 0;
}

void receiver::take(const source &from, const uint8_t *bytes, size_t size, uint32_t address, message_list &control,
                    message_list &bulk)
{
  const datagram_check check = check_datagram(bytes, size, from.channel);
  if (check == datagram_check::foreign || check == datagram_check::damaged) {
    counters_.drop(check == datagram_check::foreign ? drop_reason::foreign : drop_reason::damaged);
    return;
  }
  if (is_blocked(bytes, address)) {
    counters_.drop(drop_reason::blocked);
    return;
  }
  message_ptr one = message_new(size - WORD_SIZE);
  if (!one) {
    counters_.drop(drop_reason::receive_overflow);
    return;
  }
  memcpy(one->object(), bytes, size);
  (check == datagram_check::bulk ? bulk : control).push_back(std::move(one));
}

void receiver::read_some(source &from)
{
  batch_->prepare();
  const int count = recvmmsg(from.socket.get(), batch_->headers.data(), BATCH, MSG_DONTWAIT, nullptr);
  message_list control;
  message_list bulk;
  size_t own_pieces = 0;
  for (int n = 0; n < count; ++n) {
    const auto i = static_cast<size_t>(n);
    const sockaddr_in &address = batch_->from[i];
    if (address.sin_port == bulk_port_ && address.sin_addr.s_addr == settings_.own_address()) {
      ++own_pieces;
    }
    take(from, batch_->slot(i), batch_->headers[i].msg_len, address.sin_addr.s_addr, control, bulk);
    const cmsghdr *extra = CMSG_FIRSTHDR(&batch_->headers[i].msg_hdr);
    if (extra != nullptr && extra->cmsg_level == SOL_SOCKET && extra->cmsg_type == SO_RXQ_OVFL) {
      uint32_t lost = 0;
      memcpy(&lost, CMSG_DATA(extra), sizeof lost);
      counters_.drop(drop_reason::receive_overflow, lost - from.overflow_seen);
      from.overflow_seen = lost;
    }
  }
  if (!control.empty() || !bulk.empty()) {
    to_[from.channel - CHANNEL_FIRST]->put(control, bulk);
  }
  if (own_pieces > 0) {
    bulk_.came_back(own_pieces);
  }
}

}  // namespace platform
