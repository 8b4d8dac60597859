// The exported functions and the checks that guard them.

#include "vx_cons.h"

#include "api/lifecycle.h"
#include "ordered_broadcast/data_hooks.h"
#include "ordered_broadcast/distribute.h"
#include "service/clmsg.h"
#include "service/cluster_config.h"
#include "service/host_hook.h"
#include "service/service_state.h"

int vx_cons_init(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  return lifecycle_init();
}

void vx_cons_cleanup(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  lifecycle_cleanup();
}

int vx_cons_start(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  return lifecycle_start();
}

void vx_cons_stop(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  lifecycle_stop();
}

int vx_cons_configure(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                      uint32_t node_count, const char *node_id, const char *mtime)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  return lifecycle_configure(ipaddr, netmask, gateway, node_macs, node_count, node_id, mtime);
}

void vx_cons_register_data_hooks(uint32_t type, vx_cons_get_state_hook get_state, vx_cons_deliver_hook deliver)
{
  check_outside_host_hooks(__func__);
  if (cons_service.initialised) {
    paxos_register_data_hooks(type, get_state, deliver);
  }
}

void vx_cons_register_clmsg_hook(uint32_t index, vx_cons_clmsg_hook hook)
{
  check_outside_host_hooks(__func__);
  if (cons_service.initialised) {
    clmsg_register_hook(index, hook);
  }
}

int vx_cons_distribute(const uint8_t *data, uint32_t length, uint32_t type)
{
  check_outside_host_hooks(__func__);
  if (!caller_gate.enter()) {
    return -1;
  }
  const int result = cons_service.stopped ? -1 : paxos_distribute(data, length, type);
  caller_gate.leave();
  return result;
}

void vx_cons_bcast_clmsg(uint32_t type, const uint8_t *data, uint32_t length)
{
  check_outside_host_hooks(__func__);
  if (!caller_gate.enter()) {
    return;
  }
  if (!cons_service.stopped) {
    clmsg_bcast(type, data, length);
  }
  caller_gate.leave();
}

int vx_cons_cluster_supported(void)
{
  return cluster_config_supported() ? 1 : 0;
}

int vx_cons_cluster_enabled(void)
{
  return cluster_config_enabled() ? 1 : 0;
}

int vx_cons_cluster_active(void)
{
  return lifecycle_is_active() ? 1 : 0;
}

uint32_t vx_cons_get_node_count(void)
{
  return lifecycle_is_active() ? cons_service.node_count.load() : 1;
}

uint32_t vx_cons_get_node_id(void)
{
  return lifecycle_is_active() ? cons_service.node_id.load() : 1;
}
