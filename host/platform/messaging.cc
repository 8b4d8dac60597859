#include "messaging.h"

#include "vx_host.h"

#include <sys/random.h>

#include <algorithm>
#include <functional>
#include <system_error>
#include <tuple>
#include <utility>

namespace platform
{
namespace
{

constexpr uint32_t ANY_KEY = 0xFFFFFFFF;

bool is_channel(uint32_t channel)
{
  return channel >= CHANNEL_FIRST && channel < CHANNEL_FIRST + CHANNEL_COUNT;
}

void copy_counts(const messaging_counters::by_reason &from, drop_counts &to)
{
  std::copy(from.begin(), from.end(), to.begin());
}

bool draw_session(uint64_t &session)
{
  uint8_t bytes[SESSION_SIZE];
  do {
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
      return false;
    }
    session = read_session(bytes);
  } while (session == 0);
  return true;
}

void report_small_buffer(uint32_t wanted, size_t granted)
{
  // The kernel doubles what is asked for, to cover its own overhead.
  if (granted / 2 < wanted) {
    log_line(log_level::warning, "messaging: receive buffer is " + std::to_string(granted / 2) + " bytes instead of " +
                                     std::to_string(wanted) +
                                     ", so bulk is sent more slowly; to lift the limit: sysctl -w "
                                     "net.core.rmem_max=" +
                                     std::to_string(wanted));
  }
}

}  // namespace

messaging::messaging()
{
  for (uint32_t i = 0; i < CHANNEL_COUNT; ++i) {
    channels_[i] = std::make_unique<channel_dispatch>(counters_, gate_, CHANNEL_FIRST + i);
  }
}

bool messaging::start(const messaging_settings &settings, std::string &error)
{
  const alone_scope lock(running_lock_);
  if (running_) {
    return true;
  }
  uint64_t session = 0;
  if (!draw_session(session)) {
    error = "messaging: the kernel gives no random bytes";
    return false;
  }
  seals_.begin(settings.node_id, session, settings.keys);
  transport_ = std::make_unique<transport>(seals_);
  if (!transport_->open(settings, error) || !network_.open(settings, *transport_, error) ||
      !receiver_.open(settings, *transport_, error)) {
    receiver_.stop();
    network_.close();
    transport_.reset();
    return false;
  }
  out_.open(settings, *transport_);
  const size_t granted = transport_->receive_buffer();
  report_small_buffer(settings.receive_buffer, granted);
  try {
    for (auto &channel : channels_) {
      channel->start();
    }
    bulk_.start(granted);
    repeats_.start(settings.interval_ms);
    receiver_.start();
  } catch (const std::system_error &failure) {
    error = std::string("messaging: cannot create a thread: ") + failure.what();
    end_threads();
    transport_.reset();
    return false;
  }
  running_ = true;
  return true;
}

void messaging::stop()
{
  std::unique_ptr<transport> over;  // closed when no thread uses it
  {
    const alone_scope lock(running_lock_);
    if (!running_) {
      return;
    }
    running_ = false;
    over = std::move(transport_);
  }
  // A hook that runs may still call enqueue: it finds the service stopped.
  end_threads();
}

void messaging::end_threads()
{
  receiver_.stop();
  network_.close();
  for (auto &channel : channels_) {
    channel->stop();
  }
  repeats_.stop();
  bulk_.stop();
  out_.close();
}

const char *messaging::refusal(const message &one)
{
  if (!running_) {
    return "messaging is not started";
  }
  if (!is_channel(one.channel)) {
    return "no such channel";
  }
  if (!out_.knows(one.destination)) {
    return "no such node";
  }
  if (one.datagram_size() > DATAGRAM_MAX) {
    return "longer than a datagram can be (65503 bytes of envelope and payload)";
  }
  return nullptr;
}

void *messaging::enqueue(message_ptr sent, uint32_t channel, uint32_t key, uint32_t destination, int32_t repeat,
                         uint32_t interval)
{
  sent->id = next_id_.fetch_add(1, std::memory_order_relaxed);
  sent->channel = channel;
  sent->key = key;
  sent->destination = destination;
  sent->repeat = repeat;
  sent->interval = interval;
  void *const handle = reinterpret_cast<void *>(sent->id);  // NOLINT(performance-no-int-to-ptr): no pointer

  const shared_scope lock(running_lock_);
  if (const char *why = refusal(*sent)) {
    out_.report(*sent, 0, why);
    return nullptr;
  }
  write_word(*sent, channel, is_bulk(channel, key));
  if (repeat != 0) {
    repeats_.add(std::move(sent));
    return handle;
  }
  if (is_bulk(channel, key)) {
    if (!gate_.lets_out(*sent)) {
      return handle;
    }
    message lost = *sent;
    if (bulk_.submit(std::move(sent))) {
      return handle;
    }
    out_.report(lost, 0, "too much waits to be sent");
    return nullptr;
  }
  const send_result result = out_.send(*sent);
  if (result == send_result::busy) {
    out_.report(*sent, EAGAIN, "the send buffer is full");
  }
  return result == send_result::sent ? handle : nullptr;
}

void messaging::dequeue(void *handle, uint32_t channel, uint32_t key)
{
  if (handle != nullptr) {
    repeats_.remove(reinterpret_cast<uint64_t>(handle));
    return;
  }
  repeats_.remove(channel, key, key == ANY_KEY);
  if (channel == 5) {
    bulk_.remove(channel, key, key == ANY_KEY);
  }
}

void messaging::register_hook(channel_dispatch::hook_function hook, uint32_t channel)
{
  if (is_channel(channel)) {
    channels_[channel - CHANNEL_FIRST]->set_hook(hook);
  } else {
    log_line(log_level::error, "messaging: hook for channel " + std::to_string(channel) + ", which does not exist");
  }
}

void messaging::unregister_hook(channel_dispatch::hook_function hook)
{
  for (auto &channel : channels_) {
    channel->clear_hook(hook);
  }
}

void messaging::set_keys(const seal_keys &keys)
{
  const shared_scope lock(running_lock_);
  if (running_) {
    seals_.set_keys(keys);
  }
}

messaging_statistics messaging::statistics()
{
  messaging_statistics read;
  static_assert(CHANNEL_COUNT == std::tuple_size_v<decltype(read.channels)>);
  for (size_t i = 0; i < counters_.channels.size(); ++i) {
    traffic_statistics of;
    of.sent = counters_.channels[i].sent;
    of.received = counters_.channels[i].received;
    copy_counts(counters_.channels[i].dropped, of.dropped);
    read.sent += of.sent;
    read.received += of.received;
    std::transform(read.dropped.begin(), read.dropped.end(), of.dropped.begin(), read.dropped.begin(), std::plus());
    if (i < CHANNEL_COUNT) {
      read.channels[i] = of;
    }
  }
  read.queued = repeats_.size();
  for (uint32_t node = 1; node <= NODES_MAX; ++node) {
    copy_counts(counters_.dropped_of[node - 1], read.peers[node - 1].dropped);
    read.peers[node - 1].key = seals_.key_of(node);
  }
  read.seals_with = seals_.seals_with();
  read.accepts_plain = seals_.accepts_plain();
  return read;
}

}  // namespace platform
