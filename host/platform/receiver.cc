#include "receiver.h"

#include "message_filter.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace platform
{
namespace
{
constexpr uint64_t STOP_TAG = UINT64_MAX;
constexpr uint64_t TIMER_TAG = UINT64_MAX - 1;
constexpr uint64_t NETWORK_TAG = UINT64_MAX - 2;
constexpr time_t GREETING_PERIOD_S = 1;
constexpr uint32_t ANSWERS_MAX = 64;  // in a period; 16 nodes that begin at once need 15 each

/// Expires at once, and then once a period.
unique_fd open_greeting_timer()
{
  unique_fd timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const itimerspec times{.it_interval = {GREETING_PERIOD_S, 0}, .it_value = {0, 1}};
  return timer && timerfd_settime(timer.get(), 0, &times, nullptr) == 0 ? std::move(timer) : unique_fd();
}

bool watch(const unique_fd &poll, int fd, uint64_t tag)
{
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = tag;
  return epoll_ctl(poll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

receiver::receiver(messaging_counters &counters, channels &to, bulk_sender &bulk, sealing &seals,
                   network_attachment &network)
    : counters_(counters), to_(to), bulk_(bulk), seals_(seals), network_(network)
{
}

receiver::~receiver() = default;

bool receiver::open(const messaging_settings &settings, transport &over, std::string &error)
{
  settings_ = settings;
  transport_ = &over;
  poll_ = unique_fd(epoll_create1(EPOLL_CLOEXEC));
  stop_event_ = unique_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  greeting_timer_ = open_greeting_timer();
  bool watched = poll_ && stop_event_ && greeting_timer_ && watch(poll_, stop_event_.get(), STOP_TAG) &&
                 watch(poll_, greeting_timer_.get(), TIMER_TAG) && watch(poll_, network_.fd(), NETWORK_TAG);
  const std::span<const int> inputs = over.inputs();
  for (size_t i = 0; watched && i < inputs.size(); ++i) {
    watched = watch(poll_, inputs[i], i);
  }
  if (!watched) {
    error = "messaging: " + std::generic_category().message(errno);
  }
  return watched;
}

void receiver::expect(uint64_t cluster_id, uint32_t build)
{
  expected_build_.store(build, std::memory_order_relaxed);
  expected_cluster_.store(cluster_id, std::memory_order_release);
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
  greeting_timer_.reset();
}

void receiver::run()
{
  std::array<epoll_event, 2 * CHANNEL_COUNT + 3> events;
  for (;;) {
    const int count = epoll_wait(poll_.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      const uint64_t tag = events[static_cast<size_t>(i)].data.u64;
      if (tag == STOP_TAG) {
        return;
      }
      if (tag == TIMER_TAG) {
        uint64_t expirations = 0;
        [[maybe_unused]] const ssize_t size = read(greeting_timer_.get(), &expirations, sizeof expirations);
        answers_left_ = ANSWERS_MAX;
        network_.look_again();
        transport_->greet();
      } else if (tag == NETWORK_TAG) {
        network_.take_news();
      } else {
        read_some(tag);
      }
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

void receiver::drop(const arrival &one, uint32_t node, drop_reason reason)
{
  counters_.drop_of(node, one.channel, reason);
  warnings_.note(node, one.address, reason);
}

/// Null: it is dropped, or was for the seals alone.
message_ptr receiver::open_sealed(const arrival &one, uint32_t node)
{
  message_ptr made = message_new(one.size);
  if (!made) {
    counters_.drop(one.channel, drop_reason::receive_overflow);
    return nullptr;
  }
  const opened got = seals_.open({one.bytes, one.size}, node, one.channel, made->object() + WORD_SIZE);
  if (got.dropped) {
    drop(one, node, *got.dropped);
    return nullptr;
  }
  if (got.is_greeting) {
    if (got.wants_answer) {
      answer_greeting();
    }
    return nullptr;
  }
  made->data_size = one.size - SEAL_HEADER_SIZE - SEAL_TAG_SIZE;
  write_word(*made, one.channel, got.is_bulk);
  return made;
}

/// Null: it is dropped.
message_ptr receiver::copy_plain(const arrival &one, uint32_t node)
{
  if (!seals_.accepts_plain()) {
    drop(one, node, drop_reason::unsealed);
    return nullptr;
  }
  if (one.size < WORD_SIZE) {
    drop(one, node, drop_reason::foreign);
    return nullptr;
  }
  message_ptr copy = message_new(one.size - WORD_SIZE);
  if (!copy) {
    counters_.drop(one.channel, drop_reason::receive_overflow);
    return nullptr;
  }
  memcpy(copy->object(), one.bytes, one.size);
  return copy;
}

void receiver::take(const arrival &one, sorted &to)
{
  const uint32_t node = node_of_address(settings_, one.address);
  if (node == 0) {
    drop(one, node, drop_reason::stranger);
    return;
  }
  message_ptr made = is_sealed({one.bytes, one.size}) ? open_sealed(one, node) : copy_plain(one, node);
  if (!made) {
    return;
  }
  const datagram_check check = check_datagram(made->object(), made->datagram_size(), one.channel);
  if (check == datagram_check::foreign || check == datagram_check::damaged) {
    drop(one, node, check == datagram_check::foreign ? drop_reason::foreign : drop_reason::damaged);
    return;
  }
  if (is_blocked(made->object(), one.address)) {
    counters_.drop(one.channel, drop_reason::blocked);
    return;
  }
  note_other(*made, one, node);
  (check == datagram_check::bulk ? to.bulk : to.control).push_back(std::move(made));
}

// They are judged by the library, which cannot say where one came from.
void receiver::note_other(const message &made, const arrival &one, uint32_t node)
{
  const uint64_t cluster = expected_cluster_.load(std::memory_order_acquire);
  if (cluster == 0 || one.channel > LIBRARY_CHANNEL_LAST) {
    return;
  }
  const message_view view = view_of(made, one.channel, 0);
  if (view.cluster_id != cluster) {
    drop(one, node, drop_reason::other_cluster);
  } else if (view.build != expected_build_.load(std::memory_order_relaxed)) {
    drop(one, node, drop_reason::other_build);
  }
}

// Replayed greetings must not make this node send without end.
void receiver::answer_greeting()
{
  if (answers_left_ > 0) {
    --answers_left_;
    transport_->greet();
  }
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
  counters_.drop(arrived.channel, drop_reason::receive_overflow, arrived.lost);
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
