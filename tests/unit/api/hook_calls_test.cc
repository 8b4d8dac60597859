// Calls of the library from within its hooks, in builds that stop there.

#ifdef CONS_CHECK_LOCKS

#include <cstdlib>

#include "layer_fixture.h"
#include "ordered_broadcast/data_hooks.h"
#include "ordered_broadcast/delivery.h"
#include "ordered_broadcast/full_state.h"
#include "service/clmsg.h"
#include "vx_cons.h"

namespace
{

using wire::operator+;

void (*call_back)();

void clmsg_hook(const uint8_t *, uint32_t, uint32_t)
{
  call_back();
}

void deliver_hook(const uint8_t *, uint32_t, uint32_t)
{
  call_back();
}

int get_state_hook(uint8_t **, uint32_t *)
{
  call_back();
  return -1;
}

void run_clmsg_hook()
{
  wire::bytes object = wire::bytes(4) + fake::envelope(2, 8) + wire::clmsg(0, 0, {});
  clmsg_recv(object.data());
}

void run_deliver_hook()
{
  paxos_deliver(3, 2, wire::payload(0, {{0, {1}}}).data());
}

void run_get_state_hook()
{
  std::free(paxos_full_state(1));
}

// A host that calls in from a hook deadlocks on some day only: while another thread stops, or a log begins.
TEST(hook_calls, stop_the_process)
{
  files::clear();
  cons_service.cluster_id = fake::CLUSTER_ID;
  cons_service.node_id = 1;
  clmsg_init();
  clmsg_register_hook(0, clmsg_hook);
  paxos_register_data_hooks(0, get_state_hook, deliver_hook);
  for (void (*const run_hook)() : {run_clmsg_hook, run_deliver_hook, run_get_state_hook}) {
    for (void (*const call)() : std::initializer_list<void (*)()>{
             [] { vx_cons_init(); }, [] { vx_cons_cleanup(); }, [] { vx_cons_start(); }, [] { vx_cons_stop(); },
             [] { vx_cons_configure(nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr); },
             [] { vx_cons_register_data_hooks(0, nullptr, nullptr); }, [] { vx_cons_register_clmsg_hook(0, nullptr); },
             [] { vx_cons_distribute(nullptr, 0, 0); }, [] { vx_cons_bcast_clmsg(0, nullptr, 0); }}) {
      call_back = call;
      EXPECT_DEATH(run_hook(), "vx_cons_[a-z_]*\\(\\) is called from a hook");
    }
    call_back = [] {
      EXPECT_EQ(vx_cons_cluster_supported() + vx_cons_cluster_enabled() + vx_cons_cluster_active(), 0);
      EXPECT_EQ(vx_cons_get_node_count() + vx_cons_get_node_id(), 2u);
    };
    run_hook();
    EXPECT_EQ(vx_cons_distribute(nullptr, 0, 0), -1);  // the hook is over
  }
  data_hooks_clear();
  clmsg_cleanup();
}

}  // namespace

#endif
