// The start-up of the host layer for hosts in C.
#include "vx_host_layer.h"

#include <cstdio>
#include <exception>

#include "config_file.h"
#include "platform.h"
#include "vx_host.h"

namespace
{

constexpr std::chrono::seconds LAST_LINES_TIME{5};

// An array: it has to take a text also where there is no memory.
thread_local char last_error[512] = "";

bool is_up = false;  // the functions here are called one at a time

void keep_error(const char *text)
{
  snprintf(last_error, sizeof last_error, "%s", text);
}

// No exception may reach C.
template <typename Work>
int carry_out(const Work &work)
{
  last_error[0] = '\0';
  try {
    std::string error;
    if (work(error)) {
      return 0;
    }
    keep_error(error.c_str());
  } catch (const std::exception &failure) {
    keep_error(failure.what());
  }
  return -1;
}

bool are_good(const vx_host_setting *settings, std::string &error)
{
  for (const vx_host_setting *one = settings; one != nullptr && one->key != nullptr; ++one) {
    const std::string key = one->key;
    if (!platform::config_key_is_valid(key) || key.size() > platform::CONFIG_KEY_MAX) {
      error = key + ": a key consists of letters, digits and . _ - [ ], at most 255";
      return false;
    }
    if (one->value == nullptr) {
      error = key + ": has no value";
      return false;
    }
  }
  return true;
}

bool set_all(const vx_host_setting *settings, std::string &error)
{
  for (const vx_host_setting *one = settings; one != nullptr && one->key != nullptr; ++one) {
    if (vx_cfg_set(one->value, "%s", one->key) != 0) {
      error = std::string(one->key) + ": cannot be set";
      return false;
    }
  }
  return true;
}

}  // namespace

const char *vx_host_error(void)
{
  return last_error;
}

int vx_host_configure(const char *path, const vx_host_setting *settings)
{
  return carry_out([=](std::string &error) {
    if (!are_good(settings, error)) {
      return false;
    }
    if (path == nullptr) {
      platform::config_begin_empty();
    } else if (!platform::config_load(path, error)) {
      return false;
    }
    return set_all(settings, error);
  });
}

int vx_host_start(void)
{
  return carry_out([](std::string &error) {
    if (is_up) {
      return true;
    }
    is_up = platform::log_open(error) && platform::messaging_start(error);
    if (!is_up) {
      platform::log_close(LAST_LINES_TIME);
    }
    return is_up;
  });
}

int vx_host_reopen_log(void)
{
  return carry_out([](std::string &error) { return platform::log_reopen(error); });
}

int vx_host_reload_keys(void)
{
  return carry_out([](std::string &error) { return platform::messaging_reload_keys(error); });
}

int vx_host_stop(void)
{
  return carry_out([](std::string &error) {
    platform::messaging_stop();
    is_up = false;
    const bool is_written = platform::log_close(LAST_LINES_TIME);
    error = is_written ? "" : "the log's last lines are not written yet: its disk is too slow";
    return is_written;
  });
}
