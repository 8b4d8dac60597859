#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "fake_state.h"
#include "vx_host.h"

const uint32_t vx_firmware_dova_build_nr = 0x0bad5eed;

namespace fake
{

namespace
{

std::string format_text(const char *format, va_list arguments)
{
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

}  // namespace

host_state &host()
{
  static host_state *const state = new host_state;
  return *state;
}

void note_change()
{
  ++host().changes;
  host().changed.notify_all();
}

bool has_to_fail(call what)
{
  const std::lock_guard lock(host().lock);
  failure &f = host().failures[static_cast<size_t>(what)];
  ++f.calls;
  if (f.times == 0) {
    return false;
  }
  if (f.skip > 0) {
    --f.skip;
    return false;
  }
  --f.times;
  return true;
}

void start(dispatch mode)
{
  host_state &h = host();
  const std::lock_guard lock(h.lock);
  h.queued.clear();
  h.sent.clear();
  h.dequeued.clear();
  h.hooks.clear();
  h.held.clear();
  h.on_wire.clear();
  h.loopback = true;
  h.repeats = false;
  h.receiver = nullptr;
  h.failures = {};
  h.log.clear();
  h.pause_part.clear();
  h.config.clear();
  h.config_calls.clear();
  h.number_calls.clear();
  h.tables.clear();
  h.violations.clear();
  h.clock_back_s = 0;
  h.up = true;
  start_messaging(mode);
}

void stop()
{
  {
    const std::lock_guard lock(host().lock);
    host().up = false;
    note_change();
  }
  stop_messaging();
}

bool wait_for(const condition &holds, std::chrono::milliseconds deadline)
{
  constexpr auto RECHECK = std::chrono::milliseconds(10);
  const auto end = std::chrono::steady_clock::now() + deadline;
  std::unique_lock lock(host().lock);
  for (;;) {
    const uint64_t seen = host().changes;
    lock.unlock();
    if (holds()) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    lock.lock();
    host().changed.wait_for(lock, RECHECK, [&] { return host().changes != seen; });
  }
}

void fail(call what, uint32_t nth, uint32_t times)
{
  const std::lock_guard lock(host().lock);
  failure &f = host().failures[static_cast<size_t>(what)];
  f.skip = nth - 1;
  f.times = times;
}

uint32_t calls(call what)
{
  const std::lock_guard lock(host().lock);
  return host().failures[static_cast<size_t>(what)].calls;
}

std::vector<std::string> log_lines()
{
  const std::lock_guard lock(host().lock);
  return host().log;
}

size_t logged(const std::string &part)
{
  const std::lock_guard lock(host().lock);
  size_t count = 0;
  for (const std::string &line : host().log) {
    count += line.find(part) != std::string::npos ? 1 : 0;
  }
  return count;
}

bool wait_logged(const std::string &part, size_t count)
{
  return wait_for([&] { return logged(part) >= count; });
}

bool in_order(const std::vector<std::string> &parts)
{
  size_t next = 0;
  for (const std::string &line : log_lines()) {
    next += next < parts.size() && line.find(parts[next]) != std::string::npos ? 1 : 0;
  }
  return next == parts.size();
}

void pause_if_asked(std::unique_lock<std::mutex> &lock, const std::string &what)
{
  if (host().pause_part.empty() || what.find(host().pause_part) == std::string::npos) {
    return;
  }
  host().pause_part.clear();
  host().is_paused = true;
  note_change();
  host().changed.wait(lock, [] { return !host().is_paused; });
}

void pause_at(const std::string &part)
{
  const std::lock_guard lock(host().lock);
  host().pause_part = part;
}

bool wait_paused()
{
  return wait_for([] {
    const std::lock_guard lock(host().lock);
    return host().is_paused;
  });
}

void resume()
{
  const std::lock_guard lock(host().lock);
  host().pause_part.clear();
  host().is_paused = false;
  note_change();
}

void set_clock_back(int64_t seconds)
{
  const std::lock_guard lock(host().lock);
  host().clock_back_s = seconds;
}

void config_set(const std::string &key, const std::string &value)
{
  const std::lock_guard lock(host().lock);
  host().config[key] = value;
}

std::string config(const std::string &key)
{
  const std::lock_guard lock(host().lock);
  const auto it = host().config.find(key);
  return it == host().config.end() ? "(unset)" : it->second;
}

std::vector<std::string> config_calls()
{
  const std::lock_guard lock(host().lock);
  return host().config_calls;
}

std::vector<std::string> number_calls()
{
  const std::lock_guard lock(host().lock);
  return host().number_calls;
}

std::vector<uint32_t> tables_created()
{
  const std::lock_guard lock(host().lock);
  return host().tables;
}

int live_threads()
{
  const std::lock_guard lock(host().lock);
  return host().live_threads;
}

std::vector<std::string> violations()
{
  const std::lock_guard lock(host().lock);
  return host().violations;
}

}  // namespace fake

using namespace fake;

namespace
{

// 0 and the text of the key, or -1.
int read_key(std::string &value, const char *key_format, va_list arguments)
{
  const std::string key = format_text(key_format, arguments);
  const bool is_refused = has_to_fail(call::cfg_get);
  const std::lock_guard lock(host().lock);
  host().config_calls.push_back("get " + key);
  const auto it = host().config.find(key);
  if (is_refused || it == host().config.end()) {
    return -1;
  }
  value = it->second;
  return 0;
}

int write_key(const char *value, const char *key_format, va_list arguments)
{
  const std::string key = format_text(key_format, arguments);
  const bool is_refused = has_to_fail(call::cfg_set);
  const std::lock_guard lock(host().lock);
  host().config_calls.push_back(value != nullptr ? "set " + key + "=" + value : "unset " + key);
  if (is_refused) {
    return -1;
  }
  if (value != nullptr) {
    host().config[key] = value;
  } else {
    host().config.erase(key);
  }
  return 0;
}

struct table_entry {
  void *value = nullptr;
  void (*destroy)(void *value) = nullptr;
};
using table = std::map<uint32_t, table_entry>;  // no lock: the library has to bring its own

void drop(table &from, table::iterator it)
{
  const table_entry entry = it->second;
  from.erase(it);
  if (entry.destroy != nullptr) {
    entry.destroy(entry.value);
  }
}

void *at(table &in, table::iterator it, void **cursor)
{
  if (it == in.end()) {
    return nullptr;
  }
  *cursor = reinterpret_cast<void *>(static_cast<uintptr_t>(it->first));
  return it->second.value;
}

void add_line(const std::string &line)
{
  std::unique_lock lock(host().lock);
  host().log.push_back(line);
  note_change();
  pause_if_asked(lock, line);
}

struct thread_start {
  void *(*start)(void *);
  void *arg;
};

void *run_counted(void *arg)
{
  const thread_start begin = *static_cast<thread_start *>(arg);
  delete static_cast<thread_start *>(arg);
  void *result = begin.start(begin.arg);
  const std::lock_guard lock(host().lock);
  --host().live_threads;
  note_change();
  return result;
}

}  // namespace

#define FORMATTED(call_)                                                                                               \
  va_list arguments;                                                                                                   \
  va_start(arguments, key_format);                                                                                     \
  const int result = call_;                                                                                            \
  va_end(arguments)

int vx_cfg_get(char **value, const char *key_format, ...)
{
  std::string text;
  FORMATTED(read_key(text, key_format, arguments));
  if (result == 0) {
    *value = strdup(text.c_str());
  }
  return result;
}

int vx_cfg_get_int(int32_t *value, const char *key_format, ...)
{
  std::string text;
  FORMATTED(read_key(text, key_format, arguments));
  if (result == 0) {
    *value = static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
  }
  return result;
}

int vx_cfg_get_uint(uint32_t *value, const char *key_format, ...)
{
  std::string text;
  FORMATTED(read_key(text, key_format, arguments));
  if (result == 0) {
    *value = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
  }
  return result;
}

int vx_cfg_is_enabled(int *enabled, const char *key_format, ...)
{
  std::string text;
  FORMATTED(read_key(text, key_format, arguments));
  if (result == 0) {
    *enabled = text == "1" ? 1 : 0;
  }
  return result;
}

int vx_cfg_set(const char *value, const char *key_format, ...)
{
  FORMATTED(write_key(value, key_format, arguments));
  return result;
}

int vx_cfg_set_int(int32_t value, const char *key_format, ...)
{
  FORMATTED(write_key(std::to_string(value).c_str(), key_format, arguments));
  return result;
}

int vx_cfg_save(int permanent)
{
  const bool is_refused = has_to_fail(call::cfg_save);
  const std::lock_guard lock(host().lock);
  host().config_calls.push_back("save " + std::to_string(permanent));
  return is_refused ? -1 : 0;
}

void *vx_hash_create_i(uint32_t buckets)
{
  if (has_to_fail(call::hash_create)) {
    return nullptr;
  }
  const std::lock_guard lock(host().lock);
  host().tables.push_back(buckets);
  return new table;
}

void vx_hash_clear_i(void *table_)
{
  auto &in = *static_cast<table *>(table_);
  while (!in.empty()) {
    drop(in, in.begin());
  }
}

void vx_hash_delete_i(void *table_)
{
  vx_hash_clear_i(table_);
  delete static_cast<table *>(table_);
}

int vx_hash_set_entry_i(void *table_, uint32_t key, void *value, void (*destroy)(void *value))
{
  auto &in = *static_cast<table *>(table_);
  if (has_to_fail(call::hash_insert)) {
    return -1;
  }
  if (const auto it = in.find(key); it != in.end()) {
    drop(in, it);
  }
  in[key] = {value, destroy};
  return 0;
}

void *vx_hash_get_entry_i(void *table_, uint32_t key)
{
  auto &in = *static_cast<table *>(table_);
  const auto it = in.find(key);
  return it != in.end() ? it->second.value : nullptr;
}

int vx_hash_delete_entry_i(void *table_, uint32_t key)
{
  auto &in = *static_cast<table *>(table_);
  const auto it = in.find(key);
  if (it == in.end()) {
    return -1;
  }
  drop(in, it);
  return 0;
}

void *vx_hash_get_first_entry_i(void *table_, void **cursor)
{
  auto &in = *static_cast<table *>(table_);
  return at(in, in.begin(), cursor);
}

void *vx_hash_get_next_entry_i(void *table_, void **cursor)
{
  auto &in = *static_cast<table *>(table_);
  return at(in, in.upper_bound(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(*cursor))), cursor);
}

void vx_log(const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  add_line(format_text(format, arguments));
  va_end(arguments);
}

void vx_log_err(const char *format, ...)
{
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  add_line(format_text(format, arguments) + ": " + std::to_string(error) + "\n");
  va_end(arguments);
}

int kesh_pthread_create(pthread_t *thread, const pthread_attr_t *, size_t stack_size, void *(*start)(void *), void *arg)
{
  if (has_to_fail(call::thread)) {
    return EAGAIN;
  }
#ifdef VX_SANITIZED
  stack_size += 1u << 20;
#endif
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_size);
  {
    const std::lock_guard lock(host().lock);
    ++host().live_threads;
  }
  const int result = pthread_create(thread, &attributes, run_counted, new thread_start{start, arg});
  pthread_attr_destroy(&attributes);
  return result;
}

unsigned long long vx_strtoull(const char *text, int base, int reserved1, int reserved2, int reserved3)
{
  const std::lock_guard lock(host().lock);
  host().number_calls.push_back(std::string(text) + "," + std::to_string(base) + "," + std::to_string(reserved1) + "," +
                                std::to_string(reserved2) + "," + std::to_string(reserved3));
  return std::strtoull(text, nullptr, base);
}

int64_t timeval_diff_usec(const struct timeval *later, const struct timeval *earlier)
{
  const std::lock_guard lock(host().lock);
  const int64_t seconds = later->tv_sec - earlier->tv_sec - host().clock_back_s;
  return seconds * INT64_C(1000000) + (later->tv_usec - earlier->tv_usec);
}
