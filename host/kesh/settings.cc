#include "settings.h"

#include <algorithm>
#include <cctype>

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

}  // namespace

std::string settings::store_identity() const
{
  return cluster_name + ", generation " + std::to_string(generation) + ", " + first_mac + STATE_MAX_IN_IDENTITY +
         std::to_string(state_max);
}

bool settings_read(settings &result, std::string &error)
{
  constexpr int64_t STATE_MAX_LOW = 64 << 10;
  constexpr int64_t STATE_MAX_HIGH = 1 << 30;
  constexpr int64_t ANY_MAX = int64_t{1} << 50;
  if (!read_absolute_path("kesh.socket", SOCKET_PATH_DEFAULT, result.socket_path, error) ||
      !read_absolute_path("kesh.store", STORE_PATH_DEFAULT, result.store_path, error) ||
      !read_absolute_path("journal.file", "/flashdisk/journal", result.old_journal_path, error) ||
      !read_number("state.max", STATE_MAX_LOW, STATE_MAX_HIGH, result.state_max, error) ||
      !read_number("retention.lines", 0, ANY_MAX, result.keep.lines, error) ||
      !read_number("retention.bytes", 0, ANY_MAX, result.keep.bytes, error) ||
      !read_number("retention.age_s", 0, ANY_MAX, result.keep.age_s, error) ||
      !read_number("cluster.generation", 0, ANY_MAX, result.generation, error) ||
      !read_switch("kesh.start", true, result.start, error)) {
    return false;
  }
  result.cluster_name = platform::config_text("cluster.name", "");
  result.first_mac = platform::config_text("cluster.node[0].mac", "");
  std::transform(result.first_mac.begin(), result.first_mac.end(), result.first_mac.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  // 0 if not set. The library's start refuses a value that it does not accept.
  vx_cfg_get_uint(&result.node_id, "cluster.node_id");
  vx_cfg_get_uint(&result.node_count, "cluster.node._s_");
  return true;
}

}  // namespace kesh
