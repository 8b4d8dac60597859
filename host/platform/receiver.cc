#include "receiver.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace platform
{
namespace
{
constexpr uint64_t STOP_TAG = UINT64_MAX;

bool watch(const unique_fd &poll, int fd, uint64_t tag)
{
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = tag;
  return epoll_ctl(poll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

receiver::receiver(messaging_counters &counters, channels &to, bulk_sender &bulk)
    : counters_(counters), to_(to), bulk_(bulk)
{
}

receiver::~receiver() = default;

bool receiver::open(const messaging_settings &settings, transport &over, std::string &error)
{
  settings_ = settings;
  transport_ = &over;
  poll_ = unique_fd(epoll_create1(EPOLL_CLOEXEC));
  stop_event_ = unique_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  bool watched = poll_ && stop_event_ && watch(poll_, stop_event_.get(), STOP_TAG);
  const std::span<const int> inputs = over.inputs();
  for (size_t i = 0; watched && i < inputs.size(); ++i) {
    watched = watch(poll_, inputs[i], i);
  }
  if (!watched) {
    error = "messaging: " + std::generic_category().message(errno);
  }
  return watched;
}

void receiver::start()
{
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
  transport_ = nullptr;
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
      read_some(tag);
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

void receiver::take(const arrival &one, sorted &to)
{
  const datagram_check check = check_datagram(one.bytes, one.size, one.channel);
  if (check == datagram_check::foreign || check == datagram_check::damaged) {
    counters_.drop(check == datagram_check::foreign ? drop_reason::foreign : drop_reason::damaged);
    return;
  }
  if (is_blocked(one.bytes, one.address)) {
    counters_.drop(drop_reason::blocked);
    return;
  }
  message_ptr copy = message_new(one.size - WORD_SIZE);
  if (!copy) {
    counters_.drop(drop_reason::receive_overflow);
    return;
  }
  memcpy(copy->object(), one.bytes, one.size);
  (check == datagram_check::bulk ? to.bulk : to.control).push_back(std::move(copy));
}

void receiver::read_some(size_t input)
{
  const arrivals arrived = transport_->receive(input);
  std::array<sorted, CHANNEL_COUNT> by_channel;
  size_t own_pieces = 0;
  for (const arrival &one : arrived.all) {
    own_pieces += one.is_own_piece ? 1 : 0;
    take(one, by_channel[one.channel - CHANNEL_FIRST]);
  }
  counters_.drop(drop_reason::receive_overflow, arrived.lost);
  for (size_t i = 0; i < CHANNEL_COUNT; ++i) {
    if (!by_channel[i].control.empty() || !by_channel[i].bulk.empty()) {
      to_[i]->put(by_channel[i].control, by_channel[i].bulk);
    }
  }
  if (own_pieces > 0) {
    bulk_.came_back(own_pieces);
  }
}

}  // namespace platform
