// The exported functions, the checks that guard them, and the life of the library: down, ready, active.

#include "vx_cons.h"

#include "common/save_times.h"
#include "ordered_broadcast/data_hooks.h"
#include "ordered_broadcast/distribute.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/protocol.h"
#include "payload_dissemination/payload_files.h"
#include "service/clmsg.h"
#include "service/cluster_config.h"
#include "service/entry_gate.h"
#include "service/host_hook.h"
#include "service/isolation.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

// Holds the threads that submit or send. Until they have left, the tables stay and nothing is unregistered.
constinit entry_gate caller_gate{true};

bool is_active()
{
  return cons_service.initialised && !cons_service.stopped;
}

// While the service is stopped every call has its verdict and only has to return. None may touch the next life's state.
void wait_for_callers() CONS_REQUIRES(lifecycle_lock)
{
  caller_gate.close();
  caller_gate.wait_empty();
}

// Returns whether the service is stopped. If it is, no thread of the last run is left afterwards.
bool is_at_rest() CONS_REQUIRES(lifecycle_lock)
{
  if (!cons_service.stopped) {
    return false;
  }
  isolation_finish();
  return true;
}

void stop() CONS_REQUIRES(lifecycle_lock)
{
  cons_service.stopped = true;
  paxos_stop();
}

void cleanup() CONS_REQUIRES(lifecycle_lock)
{
  stop();
  wait_for_callers();
  cons_layers_cleanup();
  clmsg_cleanup();
  cons_service.initialised = false;
  caller_gate.open();
}

int reset() CONS_REQUIRES(lifecycle_lock)
{
  vx_log("CONS: Reset PAXOS ...\n");
  wait_for_callers();
  const int result = paxos_reset();
  caller_gate.open();
  vx_log(result == 0 ? "CONS: PAXOS reset successful.\n" : "PAXOS reset failed.\n");
  return result;
}

}  // namespace

int vx_cons_init(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  if (cons_service.initialised) {
    return 0;
  }
  isolation_init({.halt = paxos_halt, .stop = paxos_stop});
  cons_service.cluster_id = 0;
  paxos.is_leader = 0;
  cons_service.node_count = 0;
  cons_service.quorum = 0;
  cons_service.node_id = 0;
  clmsg_init();
  if (cons_layers_init() != 0) {
    cleanup();
    return -1;
  }
  cons_service.initialised = true;
  return 0;
}

void vx_cons_cleanup(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  cleanup();
}

int vx_cons_start(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  if (!cons_service.initialised) {
    return -1;
  }
  if (!is_at_rest()) {
    return 0;
  }
  isolation_begin_run();
  if (cluster_config_read() != 0 || paxos_start() != 0 || !isolation_activate()) {
    return -1;
  }
  vx_log("CONS: PAXOS started\n");
  return 0;
}

void vx_cons_stop(void)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  stop();
}

int vx_cons_configure(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                      uint32_t node_count, const char *node_id, const char *mtime)
{
  check_outside_host_hooks(__func__);
  lifecycle_section section;
  if (!cons_service.initialised || !is_at_rest()) {
    vx_log("Cannot reconfigure cluster when it is active.\n");
    return -1;
  }
  if (cluster_config_write(ipaddr, netmask, gateway, node_macs, node_count, node_id, mtime) != 0 || reset() != 0) {
    return -1;
  }
  return vx_cfg_save(1) == 0 ? 0 : -1;
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
  return is_active() ? 1 : 0;
}

uint32_t vx_cons_get_node_count(void)
{
  return is_active() ? cons_service.node_count.load() : 1;
}

uint32_t vx_cons_get_node_id(void)
{
  return is_active() ? cons_service.node_id.load() : 1;
}

vx_cons_saves vx_cons_get_saves(uint32_t kind)
{
  return save_times_of(kind);
}

uint64_t vx_cons_get_disk_reserve(void)
{
  return payload_files_reserve();
}
