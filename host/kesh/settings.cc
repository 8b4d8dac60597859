#include "settings.h"

#include <algorithm>
#include <cctype>

#include "platform.h"
#include "vx_host.h"

namespace kesh
{

namespace
{

bool read_number(const config_key &key, uint64_t &value, std::string &error)
{
  int64_t number = 0;
  if (!platform::config_number(key, number, error)) {
    return false;
  }
  value = static_cast<uint64_t>(number);
  return true;
}

}  // namespace

std::string settings::store_identity() const
{
  return cluster_name + ", generation " + std::to_string(generation) + ", " + first_mac + STATE_MAX_IN_IDENTITY +
         std::to_string(state_max);
}

bool settings_read(settings &result, std::string &error)
{
  using platform::config_text;
  if (!config_text(kesh_key("kesh.socket"), result.socket_path, error) ||
      !config_text(kesh_key("kesh.store"), result.store_path, error) ||
      !config_text(kesh_key("metrics.listen"), result.metrics_listen, error) ||
      !config_text(kesh_key("journal.file"), result.old_journal_path, error) ||
      !read_number(kesh_key("state.max"), result.state_max, error) ||
      !read_number(kesh_key("retention.lines"), result.keep.lines, error) ||
      !read_number(kesh_key("retention.bytes"), result.keep.bytes, error) ||
      !read_number(kesh_key("retention.age_s"), result.keep.age_s, error) ||
      !read_number(kesh_key("cluster.generation"), result.generation, error) ||
      !platform::config_toggle(kesh_key("kesh.start"), result.start, error) ||
      !config_text(kesh_key("cluster.name"), result.cluster_name, error)) {
    return false;
  }
  result.first_mac = config_text("cluster.node[0].mac", "");
  std::transform(result.first_mac.begin(), result.first_mac.end(), result.first_mac.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  // 0 if not set. The library's start refuses a value that it does not accept.
  vx_cfg_get_uint(&result.node_id, "cluster.node_id");
  vx_cfg_get_uint(&result.node_count, "cluster.node._s_");
  return true;
}

}  // namespace kesh
