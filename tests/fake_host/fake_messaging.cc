#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fake_state.h"
#include "vx_host.h"

namespace fake
{

namespace
{

constexpr size_t WORD = 4;
constexpr size_t ENVELOPE = 20;

// The first message whose channel is not held.
bool take(dispatcher &d, arrival &next)
{
  for (auto it = d.waiting.begin(); it != d.waiting.end(); ++it) {
    if (!host().held.contains(it->channel)) {
      next = std::move(*it);
      d.waiting.erase(it);
      return true;
    }
  }
  return false;
}

void (*hook_of(uint32_t channel))(void *)
{
  for (const auto &[hook, hook_channel] : host().hooks) {
    if (hook_channel == channel) {
      return hook;
    }
  }
  return nullptr;
}

void run_dispatcher(dispatcher &d)
{
  std::unique_lock lock(host().lock);
  while (host().up) {
    arrival next;
    if (!take(d, next)) {
      host().changed.wait(lock);
      continue;
    }
    if (const auto hook = hook_of(next.channel)) {
      d.running = true;
      lock.unlock();
      hook(next.object.data());
      lock.lock();
      d.running = false;
    }
    note_change();
  }
}

void arrive(uint32_t channel, bytes object)
{
  if (const auto it = host().dispatcher_of.find(channel); it != host().dispatcher_of.end()) {
    it->second->waiting.push_back({channel, std::move(object)});
    note_change();
  }
}

void loop_back(const sent_message &message)
{
  uint32_t own_address;
  std::memcpy(&own_address, message.envelope.data() + 12, sizeof own_address);
  if (host().loopback && (message.destination == MULTICAST || message.destination == own_address)) {
    arrive(message.channel, bytes(WORD) + message.envelope + message.payload);
  }
}

// Repeats what is queued whenever nothing was sent for a while, if it is to be repeated at all.
void wait_for_wire(std::unique_lock<std::mutex> &lock)
{
  constexpr auto PERIOD = std::chrono::milliseconds(20);
  const auto has_work = [] { return !host().up || !host().on_wire.empty(); };
  if (!host().repeats) {
    host().changed.wait(lock);
  } else if (!host().changed.wait_for(lock, PERIOD, has_work)) {
    for (const auto &[handle, message] : host().queued) {
      host().on_wire.push_back(message);
    }
  }
}

void run_wire()
{
  std::unique_lock lock(host().lock);
  while (host().up) {
    if (host().on_wire.empty()) {
      wait_for_wire(lock);
      continue;
    }
    const sent_message message = std::move(host().on_wire.front());
    host().on_wire.pop_front();
    host().wire_busy = true;
    loop_back(message);
    if (const auto receiver = host().receiver) {
      host().receiver_busy = true;
      lock.unlock();
      receiver(message);
      lock.lock();
      host().receiver_busy = false;
    }
    host().wire_busy = false;
    note_change();
  }
}

bool is_quiet()
{
  if (!host().on_wire.empty() || host().wire_busy) {
    return false;
  }
  for (const dispatcher &d : host().dispatchers) {
    if (d.running) {
      return false;
    }
    for (const arrival &waiting : d.waiting) {
      if (!host().held.contains(waiting.channel)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

void start_messaging(dispatch mode)
{
  size_t next = 0;
  for (const uint32_t channel : CHANNELS) {
    host().dispatcher_of[channel] = &host().dispatchers[mode == dispatch::per_channel ? next++ : 0];
  }
  for (auto &d : host().dispatchers) {
    d.waiting.clear();
    d.thread = std::thread([&d] { run_dispatcher(d); });
  }
  host().wire = std::thread(run_wire);
}

void stop_messaging()
{
  for (auto &d : host().dispatchers) {
    d.thread.join();
  }
  host().wire.join();
}

uint32_t address_of(uint32_t node_id)
{
  const uint8_t octets[] = {127, 1, 0, static_cast<uint8_t>(node_id)};
  uint32_t address;
  std::memcpy(&address, octets, sizeof address);
  return address;
}

uint32_t sent_message::type() const
{
  return channel == 5 ? wire::word_at(payload, 0) & 0xffff : wire::word_at(payload, 0);
}

std::vector<sent_message> sent()
{
  const std::lock_guard lock(host().lock);
  return host().sent;
}

std::vector<sent_message> sent(uint32_t channel, uint32_t type)
{
  auto all = sent();
  std::erase_if(all, [&](const sent_message &m) { return m.channel != channel || m.type() != type; });
  return all;
}

std::vector<sent_message> queued(uint32_t channel, uint32_t key)
{
  const std::lock_guard lock(host().lock);
  std::vector<sent_message> out;
  for (const auto &[handle, message] : host().queued) {
    if (message.channel == channel && message.key == key) {
      out.push_back(message);
    }
  }
  return out;
}

size_t queued_count()
{
  const std::lock_guard lock(host().lock);
  return host().queued.size();
}

std::vector<uint32_t> hook_channels()
{
  const std::lock_guard lock(host().lock);
  std::set<uint32_t> channels;
  for (const auto &[hook, channel] : host().hooks) {
    channels.insert(channel);
  }
  return {channels.begin(), channels.end()};
}

std::vector<dequeue_call> dequeued()
{
  const std::lock_guard lock(host().lock);
  return host().dequeued;
}

void set_loopback(bool is_on)
{
  const std::lock_guard lock(host().lock);
  host().loopback = is_on;
}

void set_receiver(std::function<void(const sent_message &)> receiver)
{
  std::unique_lock lock(host().lock);
  host().receiver = std::move(receiver);
  host().changed.wait(lock, [] { return !host().receiver_busy; });
}

void set_repeats(bool is_on)
{
  const std::lock_guard lock(host().lock);
  host().repeats = is_on;
  note_change();
}

void repeat_queued()
{
  const std::lock_guard lock(host().lock);
  for (const auto &[handle, message] : host().queued) {
    host().on_wire.push_back(message);
  }
  note_change();
}

bytes envelope(uint32_t from_node, size_t length)
{
  return wire::words({static_cast<uint32_t>(CLUSTER_ID), static_cast<uint32_t>(CLUSTER_ID >> 32),
                      vx_firmware_dova_build_nr, address_of(from_node), static_cast<uint32_t>(length)});
}

void inject_with(uint32_t channel, const bytes &head, const bytes &payload)
{
  // An allocation of its own: sanitizers see who reads beyond the message.
  bytes object = bytes(WORD) + head + payload;
  object.shrink_to_fit();
  const std::lock_guard lock(host().lock);
  arrive(channel, std::move(object));
}

void inject(uint32_t channel, uint32_t from_node, const bytes &payload)
{
  inject_with(channel, envelope(from_node, payload.size()), payload);
}

std::function<void()> late_call(uint32_t channel, uint32_t from_node, const bytes &payload)
{
  const std::lock_guard lock(host().lock);
  return [hook = hook_of(channel), object = bytes(WORD) + envelope(from_node, payload.size()) + payload]() mutable {
    if (hook != nullptr) {
      hook(object.data());
    }
  };
}

void call_hook(uint32_t channel, uint32_t from_node, const bytes &payload)
{
  late_call(channel, from_node, payload)();
}

void hold(uint32_t channel)
{
  const std::lock_guard lock(host().lock);
  host().held.insert(channel);
}

void release(uint32_t channel)
{
  const std::lock_guard lock(host().lock);
  host().held.erase(channel);
  note_change();
}

bool settle(std::chrono::milliseconds deadline)
{
  std::unique_lock lock(host().lock);
  return host().changed.wait_for(lock, deadline, is_quiet);
}

bool wait_hook_blocked()
{
  constexpr auto QUIET = std::chrono::milliseconds(30);
  const auto is_running = [] {
    const std::lock_guard lock(host().lock);
    return std::any_of(host().dispatchers.begin(), host().dispatchers.end(),
                       [](const dispatcher &d) { return d.running; });
  };
  if (!wait_for(is_running)) {
    return false;
  }
  std::unique_lock lock(host().lock);
  for (uint64_t seen = host().changes + 1; seen != host().changes;) {
    seen = host().changes;
    host().changed.wait_for(lock, QUIET);
  }
  lock.unlock();
  return is_running();
}

size_t messages_in_hand()
{
  const std::lock_guard lock(host().lock);
  return host().in_hand.size();
}

}  // namespace fake

using namespace fake;

void *vx_msg_allocate(uint32_t size)
{
  if (has_to_fail(call::allocate) || size > 1u << 28) {
    return nullptr;
  }
  void *msg = ::operator new(WORD + size);
  std::memset(msg, 0xa5, WORD + size);  // what the library leaves unset must not pass for zero
  const std::lock_guard lock(host().lock);
  host().in_hand[msg] = size;
  return msg;
}

void *vx_msg_enqueue(void *msg, uint32_t channel, uint32_t msg_key, uint32_t destination, int32_t repeat,
                     uint32_t interval)
{
  const bool is_refused = has_to_fail(call::enqueue);
  const std::lock_guard lock(host().lock);
  const auto in_hand = host().in_hand.find(msg);
  if (in_hand == host().in_hand.end()) {
    host().violations.push_back("a message is sent that was not allocated, or sent before");
    return nullptr;
  }
  const uint32_t size = in_hand->second;
  host().in_hand.erase(in_hand);
  const auto *data = static_cast<const uint8_t *>(msg) + WORD;
  sent_message message = {channel,
                          msg_key,
                          destination,
                          repeat,
                          interval,
                          bytes(data, data + ENVELOPE),
                          bytes(data + ENVELOPE, data + size)};
  ::operator delete(msg);
  if (wire::word_at(message.envelope, 16) != message.payload.size()) {
    host().violations.push_back("the envelope's length is not the message's");
  }
  if (is_refused) {
    return nullptr;
  }
  const uint64_t handle = host().next_handle++;
  host().sent.push_back(message);
  if (repeat != 0) {
    host().queued[handle] = message;
  }
  host().on_wire.push_back(std::move(message));
  note_change();
  return reinterpret_cast<void *>(handle);
}

int vx_msg_dequeue(void *handle, uint32_t channel, uint32_t msg_key, uint32_t reserved)
{
  const std::lock_guard lock(host().lock);
  host().dequeued.push_back({handle != nullptr, channel, msg_key});
  if (reserved != 0) {
    host().violations.push_back("vx_msg_dequeue: the reserved argument is not 0");
  }
  if (handle != nullptr) {
    host().queued.erase(reinterpret_cast<uint64_t>(handle));
  } else {
    std::erase_if(host().queued, [&](const auto &item) {
      return item.second.channel == channel && (msg_key == 0xffffffff || item.second.key == msg_key);
    });
  }
  note_change();
  return 0;
}

void vx_msg_register_recv_hook(void (*hook)(void *msg), uint32_t channel)
{
  std::unique_lock lock(host().lock);
  if (!host().hooks.emplace(hook, channel).second) {
    host().violations.push_back("a hook is registered twice");
  }
  note_change();
  pause_if_asked(lock, "register channel " + std::to_string(channel));
}

void vx_msg_unregister_recv_hook(void (*hook)(void *msg))
{
  const std::lock_guard lock(host().lock);
  host().hooks.erase(hook);
  note_change();
}
