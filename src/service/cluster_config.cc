#include "service/cluster_config.h"

#include <cstdlib>

#include "common/id_batch.h"
#include "service/identity.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

// "00:11:22:33:44:55" becomes 0x001122334455; a text without a number becomes 0.
uint64_t mac_number(char *text)
{
  char *to = text;
  for (const char *from = text; *from != '\0'; ++from) {
    if (*from != ':') {
      *to++ = *from;
    }
  }
  *to = '\0';
  return vx_strtoull(text, 16, 0, 0, 0);
}

int read_node_count()
{
  uint32_t node_count = 0;
  const bool is_read = vx_cfg_get_uint(&node_count, "cluster.node._s_") == 0;
  if (is_read && node_count <= NODES_MAX) {
    cons_service.node_count = node_count;
  }
  if (!is_read || node_count == 0 || node_count > NODES_MAX) {
    vx_log("cluster.node._s_ config variable not set or invalid\n");
    return -1;
  }
  return 0;
}

int read_cluster_id()
{
  char *mac = nullptr;
  vx_cfg_get(&mac, "cluster.node[%u].mac", 0u);
  cons_service.cluster_id = mac != nullptr ? mac_number(mac) : 0;
  std::free(mac);
  if (cons_service.cluster_id == 0) {
    vx_log("cluster.node[0].mac config variable not set or invalid\n");
    return -1;
  }
  return 0;
}

int read_node_id()
{
  uint32_t node_id = 0;
  if (vx_cfg_get_uint(&node_id, "cluster.node_id") != 0 || !is_member(node_id)) {
    vx_log("cluster_node_id config variable not set or invalid\n");
    return -1;
  }
  cons_service.node_id = node_id;
  return 0;
}

}  // namespace

int cluster_config_read()
{
  if (read_node_count() != 0 || read_cluster_id() != 0) {
    return -1;
  }
  cons_service.quorum = cons_service.node_count / 2 + 1;
  if (read_node_id() != 0) {
    return -1;
  }
  cons_service.node_addr = node_addr_of_id(cons_service.node_id);
  int is_durable = 0;
  cons_service.durable_payloads = vx_cfg_is_enabled(&is_durable, "cluster.durable_payloads") == 0 && is_durable != 0;
  vx_log("CONS: Cluster node initialized (cnt=%u, quorum=%u, node_id=%u).\n", cons_service.node_count.load(),
         cons_service.quorum.load(), cons_service.node_id.load());
  return 0;
}

int cluster_config_write(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                         uint32_t node_count, const char *node_id, const char *mtime)
{
  if (mtime == nullptr || *mtime == '\0') {
    mtime = "0";
  }
  if (vx_cfg_set(mtime, "cluster.mtime") != 0 || vx_cfg_set(ipaddr, "cluster.ipaddr") != 0 ||
      vx_cfg_set(netmask, "cluster.netmask") != 0 || vx_cfg_set(gateway, "cluster.gateway") != 0 ||
      vx_cfg_set_int(static_cast<int32_t>(node_count), "cluster.node._s_") != 0) {
    return -1;
  }
  for (uint32_t i = 0; i < node_count; ++i) {
    if (node_macs == nullptr || vx_cfg_set(node_macs[i], "cluster.node[%u].mac", i) != 0) {
      return -1;
    }
  }
  for (uint32_t i = node_count; i < cons_service.node_count; ++i) {
    if (vx_cfg_set(nullptr, "cluster.node[%u].mac", i) != 0) {
      return -1;
    }
  }
  return vx_cfg_set(node_id, "cluster.node_id") == 0 ? 0 : -1;
}

bool cluster_config_supported()
{
  int is_enabled = 0;
  return vx_cfg_is_enabled(&is_enabled, "cluster.supported") == 0 && is_enabled != 0;
}

bool cluster_config_enabled()
{
  int32_t node_count = 0;
  return cluster_config_supported() && vx_cfg_get_int(&node_count, "cluster.node._s_") == 0 && node_count > 0;
}
