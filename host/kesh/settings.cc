#include "settings.h"

#include "platform.h"
#include "vx_host.h"

namespace kesh
{

namespace
{

bool read_number(const char *key, int64_t low, int64_t high, uint64_t &value, std::string &error)
{
  int64_t number = 0;
  if (!platform::config_number(key, low, high, static_cast<int64_t>(value), number, error)) {
    return false;
  }
  value = static_cast<uint64_t>(number);
  return true;
}

bool read_absolute_path(const char *key, const char *fallback, std::string &value, std::string &error)
{
  value = platform::config_text(key, fallback);
  return value.starts_with('/') ||
         platform::config_refuse(key, "\"" + value + "\" is no path that begins with /", error);
}

bool read_switch(const char *key, bool fallback, bool &value, std::string &error)
{
  const std::string text = platform::config_text(key, fallback ? "yes" : "no");
  value = text == "yes";
  return value || text == "no" || platform::config_refuse(key, "\"" + text + "\" is neither yes nor no", error);
}

bool read_trace(trace_settings &result, std::string &error)
{
  constexpr int64_t STATE_BYTES_MAX = 1 << 30;
  for (uint32_t type = 1; type < result.state_bytes.size(); type++) {
    uint64_t size = 0;
    if (!read_number(("trace.state_bytes[" + std::to_string(type) + "]").c_str(), 0, STATE_BYTES_MAX, size, error)) {
      return false;
    }
    result.state_bytes[type] = static_cast<uint32_t>(size);
  }
  const bool wanted = !platform::config_text("trace.file", "").empty();
  return (!wanted || read_absolute_path("trace.file", "", result.path, error)) &&
         read_switch("trace.marks", false, result.marks, error);
}

}  // namespace

bool settings_read(settings &result, std::string &error)
{
  constexpr int64_t KEEP_LINES_MAX = 1'000'000'000;
  constexpr int64_t KEEP_BYTES_MAX = int64_t{2} << 30;
  if (!read_absolute_path("kesh.socket", SOCKET_PATH_DEFAULT, result.socket_path, error) ||
      !read_absolute_path("journal.file", "/flashdisk/journal", result.journal.path, error) ||
      !read_number("journal.keep", 1, KEEP_LINES_MAX, result.journal.keep_lines, error) ||
      !read_number("journal.keep_bytes", 4096, KEEP_BYTES_MAX, result.journal.keep_bytes, error) ||
      !read_switch("kesh.start", true, result.start, error) || !read_trace(result.trace, error)) {
    return false;
  }
  // 0 if not set. The library's start refuses a value that it does not accept.
  vx_cfg_get_uint(&result.node_id, "cluster.node_id");
  vx_cfg_get_uint(&result.node_count, "cluster.node._s_");
  // The library keeps a payload on disk only until the hooks have returned.
  int has_durable_payloads = 0;
  result.journal.is_durable =
      vx_cfg_is_enabled(&has_durable_payloads, "cluster.durable_payloads") == 0 && has_durable_payloads != 0;
  return true;
}

}  // namespace kesh
