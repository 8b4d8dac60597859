#include "api/lifecycle.h"

#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/protocol.h"
#include "service/clmsg.h"
#include "service/cluster_config.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

// While the service is stopped every call has its verdict and only has to return. None may touch the next life's state.
void wait_for_callers() CONS_REQUIRES(lifecycle_lock)
{
  caller_gate.close();
  caller_gate.wait_empty();
}

int start() CONS_REQUIRES(lifecycle_lock)
{
  isolation_begin_run();
  if (cluster_config_read() != 0 || paxos_start() != 0 || !isolation_activate()) {
    return -1;
  }
  vx_log("CONS: PAXOS started\n");
  return 0;
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

int configure(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
              uint32_t node_count, const char *node_id, const char *mtime) CONS_REQUIRES(lifecycle_lock)
{
  if (cluster_config_write(ipaddr, netmask, gateway, node_macs, node_count, node_id, mtime) != 0) {
    return -1;
  }
  vx_log("CONS: Reset PAXOS ...\n");
  wait_for_callers();
  const int result = paxos_reset();
  caller_gate.open();
  if (result != 0) {
    vx_log("PAXOS reset failed.\n");
    return -1;
  }
  vx_log("CONS: PAXOS reset successful.\n");
  return vx_cfg_save(1) == 0 ? 0 : -1;
}

}  // namespace

bool lifecycle_is_active()
{
  return cons_service.initialised && !cons_service.stopped;
}

int lifecycle_init()
{
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
    lifecycle_cleanup();
    return -1;
  }
  cons_service.initialised = true;
  return 0;
}

int lifecycle_start()
{
  if (!cons_service.initialised) {
    return -1;
  }
  return is_at_rest() ? start() : 0;
}

void lifecycle_stop()
{
  cons_service.stopped = true;
  paxos_stop();
}

void lifecycle_cleanup()
{
  lifecycle_stop();
  wait_for_callers();
  cons_layers_cleanup();
  clmsg_cleanup();
  cons_service.initialised = false;
  caller_gate.open();
}

int lifecycle_configure(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                        uint32_t node_count, const char *node_id, const char *mtime)
{
  if (!cons_service.initialised || !is_at_rest()) {
    vx_log("Cannot reconfigure cluster when it is active.\n");
    return -1;
  }
  return configure(ipaddr, netmask, gateway, node_macs, node_count, node_id, mtime);
}
