// The functions of vx_host.h that need a node: messaging, configuration, log, threads. Those that do not (hash tables,
// helpers) are the host's own.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "context.h"
#include "node_host.h"
#include "vx_host.h"

namespace sim
{

namespace
{

constexpr size_t WORD = 4;
constexpr uint32_t ALL_NODES = 0x510000e0;  // 224.0.0.81
constexpr int64_t INTERVAL_US = 100'000;
constexpr uint32_t ANY_KEY = 0xffffffff;

// What vx_msg_allocate returns is behind this.
struct object_head {
  uint64_t size;
};

std::string formatted(const char *format, va_list arguments)
{
  char text[1024];
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  return std::string(text, static_cast<size_t>(std::clamp(length, 0, static_cast<int>(sizeof text) - 1)));
}

void log_text(const std::string &text)
{
  const node_run &run = here();
  sim_context.log->line(sim_context.clock->now_us(), run.node, text);
  sim_context.judge->log_line(*run.home, text);
  caught("log");
}

uint32_t node_of_address(uint32_t address)
{
  return address == ALL_NODES ? 0 : address >> 24;
}

void transmit(const node_run &run, uint32_t to, uint32_t channel, const datagram &one)
{
  if (!node_host::passes(*run.home, channel, one)) {
    return;
  }
  sim_context.judge->sent(*run.home, channel, one);
  death &dies = run.home->dies;
  if (dies.at_send == 0 || kind_of(channel, one) != dies.kind || --dies.at_send != 0) {
    sim_context.network->send(run.node, to, channel, one);
    return;
  }
  for (uint32_t node = 1; node <= NODES_MAX; ++node) {
    if ((to == 0 || to == node) && (dies.reached >> node & 1) != 0) {
      sim_context.network->send(run.node, node, channel, one);
    }
  }
  sim_context.die(*run.home);
}

void repeat_later(node_run &run, uint64_t id, int64_t period_us)
{
  scheduler &clock = *sim_context.clock;
  clock.at(clock.now_us() + period_us, [&run, id, period_us] {
    const auto at = std::find_if(run.repeated.begin(), run.repeated.end(),
                                 [id](const repeated_message &one) { return one.id == id; });
    if (run.is_killed || at == run.repeated.end()) {
      return;
    }
    if (!run.is_paused) {
      transmit(run, at->to, at->channel, at->one);
    }
    repeat_later(run, id, period_us);
  });
}

// Runs `take` with the key's value. -1: it has none.
template <class taker>
int with_value(const char *format, va_list arguments, taker take)
{
  const std::map<std::string, std::string> &config = here().home->config;
  const auto at = config.find(formatted(format, arguments));
  if (at == config.end()) {
    return -1;
  }
  take(at->second);
  return 0;
}

}  // namespace

}  // namespace sim

using namespace sim;

void *vx_msg_allocate(uint32_t size)
{
  auto *const head = static_cast<object_head *>(std::calloc(1, sizeof(object_head) + WORD + size));
  head->size = size;
  return head + 1;
}

void *vx_msg_enqueue(void *msg, uint32_t channel, uint32_t msg_key, uint32_t destination, int32_t repeat,
                     uint32_t interval)
{
  node_run &run = here();
  auto *const head = static_cast<object_head *>(msg) - 1;
  const uint8_t *const bytes = static_cast<const uint8_t *>(msg) + WORD;
  const auto one = std::make_shared<const std::vector<uint8_t>>(bytes, bytes + head->size);
  std::free(head);
  const uint32_t to = node_of_address(destination);
  const uint64_t id = ++run.last_message;
  caught("send", channel << 8 | to);
  transmit(run, to, channel, one);
  if (run.is_killed) {
    caught("died");
  }
  if (repeat == -1) {
    const int64_t period_us = std::max(interval, 1u) * INTERVAL_US;
    run.repeated.push_back(
        {.id = id, .channel = channel, .key = msg_key, .to = to, .period_us = period_us, .one = one});
    repeat_later(run, id, period_us);
  }
  return reinterpret_cast<void *>(id);
}

int vx_msg_dequeue(void *handle, uint32_t channel, uint32_t msg_key, uint32_t)
{
  caught("dequeue", channel);
  const auto id = reinterpret_cast<uint64_t>(handle);
  std::erase_if(here().repeated, [&](const repeated_message &one) {
    return id != 0 ? one.id == id : one.channel == channel && (msg_key == ANY_KEY || one.key == msg_key);
  });
  return 0;
}

void vx_msg_register_recv_hook(void (*hook)(void *msg), uint32_t channel)
{
  here().hooks.at(channel - FIRST_CHANNEL) = hook;
  caught("register");
}

void vx_msg_unregister_recv_hook(void (*hook)(void *msg))
{
  std::replace(here().hooks.begin(), here().hooks.end(), hook, receive_hook{});
  caught("unregister");
}

int vx_cfg_get(char **value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = with_value(key_format, arguments, [&](const std::string &text) { *value = strdup(text.c_str()); });
  va_end(arguments);
  return result;
}

int vx_cfg_get_int(int32_t *value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = with_value(key_format, arguments, [&](const std::string &text) { *value = std::stoi(text); });
  va_end(arguments);
  return result;
}

int vx_cfg_get_uint(uint32_t *value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = with_value(key_format, arguments,
                                [&](const std::string &text) { *value = static_cast<uint32_t>(std::stoul(text)); });
  va_end(arguments);
  return result;
}

int vx_cfg_is_enabled(int *enabled, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result =
      with_value(key_format, arguments, [&](const std::string &text) { *enabled = text == "1" ? 1 : 0; });
  va_end(arguments);
  return result;
}

int vx_cfg_set(const char *value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const std::string key = formatted(key_format, arguments);
  va_end(arguments);
  if (value == nullptr) {
    here().home->config.erase(key);
  } else {
    here().home->config[key] = value;
  }
  return 0;
}

int vx_cfg_set_int(int32_t value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  here().home->config[formatted(key_format, arguments)] = std::to_string(value);
  va_end(arguments);
  return 0;
}

int vx_cfg_save(int)
{
  caught("save-configuration");
  return 0;
}

void vx_log(const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted(format, arguments);
  va_end(arguments);
  log_text(text);
}

void vx_log_err(const char *format, ...)
{
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted(format, arguments) + ": " + std::strerror(error);
  va_end(arguments);
  log_text(text);
}

int kesh_pthread_create(pthread_t *thread, const pthread_attr_t *, size_t, void *(*start)(void *), void *arg)
{
  node_run &run = here();
  *thread = sim_context.clock->create(&run, "library", [start, arg] { start(arg); }).number;
  caught("create-thread", *thread);
  return 0;
}
