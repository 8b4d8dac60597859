// The configuration store: vx_cfg_* and platform::config_*, one file of text.
#include "atomic_file.h"
#include "config_file.h"
#include "config_key.h"
#include "guarded.h"
#include "platform.h"
#include "vx_host.h"

#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

namespace platform
{
namespace
{

struct config_store {
  mutex guard;
  std::string path PLATFORM_GUARDED_BY(guard);  // empty: no file, lives in memory only
  bool needs_no_file PLATFORM_GUARDED_BY(guard) = false;
  config_file file PLATFORM_GUARDED_BY(guard);
  // Set or removed (no value) since the last save.
  std::map<std::string, std::optional<std::string>> changes PLATFORM_GUARDED_BY(guard);
};

// Never deleted: threads may still read while the process exits.
config_store &store()
{
  static config_store *const only = new config_store;
  return *only;
}

// The place of a key, for messages: "file:line: key: ".
std::string place_of(const std::string &key)
{
  config_store &config = store();
  const lock_scope lock(config.guard);
  const config_line *line = config.file.find(key);
  const std::string file = config.path.empty() ? "configuration" : config.path;
  return file + (line && line->number != 0 ? ":" + std::to_string(line->number) : "") + ": " + key + ": ";
}

std::optional<std::string> value_of(const std::string &key)
{
  config_store &config = store();
  const lock_scope lock(config.guard);
  const config_line *line = config.file.find(key);
  return line ? std::optional<std::string>(line->value) : std::nullopt;
}

void apply(config_file &file, const std::string &key, const std::optional<std::string> &value)
{
  if (value) {
    file.set(key, *value);
  } else {
    file.remove(key);
  }
}

void change(const std::string &key, const std::optional<std::string> &value)
{
  config_store &config = store();
  const lock_scope lock(config.guard);
  config.changes[key] = value;
  apply(config.file, key, value);
}

// Merges our changes into the file as it is now, so that what an operator has edited since the load stays.
bool save_locked(config_store &config, std::string &error) PLATFORM_REQUIRES(config.guard)
{
  if (config.path.empty()) {
    error = "no configuration file is loaded";
    return config.needs_no_file;
  }
  std::string text;
  config_file merged;
  if (!config_file_read(config.path, text, error) || !merged.parse(text, config.path, error)) {
    return false;
  }
  for (const auto &[key, value] : config.changes) {
    apply(merged, key, value);
  }
  if (!file_replace(config.path, merged.text(), error) || !merged.parse(merged.text(), config.path, error)) {
    return false;
  }
  config.file = std::move(merged);
  config.changes.clear();
  return true;
}

// No exception may reach C. Here they can only be failed allocations.
template <typename Body>
int for_key(const char *format, va_list arguments, Body body)
{
  try {
    char key[CONFIG_KEY_MAX + 1];
    // The analyzer loses track of a va_list that is handed on.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = vsnprintf(key, sizeof key, format, arguments);
    if (length < 0 || static_cast<size_t>(length) >= sizeof key || !config_key_is_valid(key)) {
      return -1;
    }
    return body(std::string(key)) ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

template <typename Number>
bool get_number(const std::string &key, Number &value)
{
  const auto text = value_of(key);
  if (!text) {
    return false;
  }
  constexpr auto LIMITS = std::numeric_limits<Number>();
  const std::string why = config_fault({.kind = config_kind::number, .low = LIMITS.min(), .high = LIMITS.max()}, *text);
  if (!why.empty()) {
    log_line(log_level::error, place_of(key) + why);
    return false;
  }
  int64_t number = 0;
  std::from_chars(text->data(), text->data() + text->size(), number);
  value = static_cast<Number>(number);
  return true;
}

bool get_switch(const std::string &key, int &enabled)
{
  const auto text = value_of(key);
  if (!text) {
    return false;
  }
  const auto value = config_toggle_value(*text);
  if (value) {
    enabled = *value ? 1 : 0;
  } else {
    log_line(log_level::error, place_of(key) + config_fault({.kind = config_kind::toggle}, *text));
  }
  return value.has_value();
}

}  // namespace

bool config_load(const std::string &path, std::string &error)
{
  std::string text;
  config_file read;
  if (!config_file_read(path, text, error) || !read.parse(text, path, error)) {
    return false;
  }
  config_store &config = store();
  const lock_scope lock(config.guard);
  // A save replaces the file that a symbolic link names, not the link.
  char *real = realpath(path.c_str(), nullptr);
  config.path = real ? real : path;
  config.needs_no_file = false;
  free(real);
  config.file = std::move(read);
  config.changes.clear();
  return true;
}

void config_begin_empty()
{
  config_store &config = store();
  const lock_scope lock(config.guard);
  config.path.clear();
  config.needs_no_file = true;
  config.file = config_file();
  config.changes.clear();
}

std::string config_text(const std::string &key, const std::string &fallback)
{
  return value_of(key).value_or(fallback);
}

bool config_refuse(const std::string &key, const std::string &why, std::string &error)
{
  error = place_of(key) + why;
  return false;
}

bool config_text(const config_key &key, std::string &value, std::string &error)
{
  const std::string name(key.name);
  const auto text = value_of(name);
  const std::string why = text ? config_fault(key, *text) : "";
  value = text.value_or(std::string(key.fallback));
  return why.empty() || config_refuse(name, why, error);
}

bool config_number(const config_key &key, int64_t &value, std::string &error)
{
  std::string text;
  if (!config_text(key, text, error)) {
    return false;
  }
  value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return true;
}

bool config_toggle(const config_key &key, bool &value, std::string &error)
{
  std::string text;
  if (!config_text(key, text, error)) {
    return false;
  }
  value = config_toggle_value(text).value_or(false);
  return true;
}

}  // namespace platform

using namespace platform;

int vx_cfg_get(char **value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = for_key(key_format, arguments, [&](const std::string &key) {
    const auto text = value_of(key);
    char *copy = text ? strdup(text->c_str()) : nullptr;
    if (copy != nullptr) {
      *value = copy;
    }
    return copy != nullptr;
  });
  va_end(arguments);
  return result;
}

int vx_cfg_get_int(int32_t *value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = for_key(key_format, arguments, [&](const std::string &key) { return get_number(key, *value); });
  va_end(arguments);
  return result;
}

int vx_cfg_get_uint(uint32_t *value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = for_key(key_format, arguments, [&](const std::string &key) { return get_number(key, *value); });
  va_end(arguments);
  return result;
}

int vx_cfg_is_enabled(int *enabled, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = for_key(key_format, arguments, [&](const std::string &key) { return get_switch(key, *enabled); });
  va_end(arguments);
  return result;
}

int vx_cfg_set(const char *value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = for_key(key_format, arguments, [&](const std::string &key) {
    change(key, value ? std::optional<std::string>(value) : std::nullopt);
    return true;
  });
  va_end(arguments);
  return result;
}

int vx_cfg_set_int(int32_t value, const char *key_format, ...)
{
  va_list arguments;
  va_start(arguments, key_format);
  const int result = for_key(key_format, arguments, [&](const std::string &key) {
    change(key, std::to_string(value));
    return true;
  });
  va_end(arguments);
  return result;
}

int vx_cfg_save(int permanent)
{
  if (permanent == 0) {
    return 0;
  }
  try {
    std::string error;
    bool saved = false;
    {
      config_store &config = store();
      const lock_scope lock(config.guard);
      saved = save_locked(config, error);
    }
    if (!saved) {
      log_line(log_level::error, "configuration not saved: " + error);
    }
    return saved ? 0 : -1;
  } catch (...) {
    return -1;
  }
}
