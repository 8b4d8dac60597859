#include "ordered_broadcast/protocol.h"

#include "common/monotonic_clock.h"
#include "ordered_broadcast/data_hooks.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/decision.h"
#include "ordered_broadcast/delivery.h"
#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/forward.h"
#include "ordered_broadcast/lagging_nodes.h"
#include "ordered_broadcast/leader_watch.h"
#include "ordered_broadcast/message_ids.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/proposer.h"
#include "ordered_broadcast/sign_of_life.h"
#include "ordered_broadcast/waiting_ids.h"
#include "ordered_broadcast/watch_pause.h"
#include "payload_dissemination/paxos_data.h"
#include "round_based_registers/consensus.h"
#include "round_based_registers/register_table.h"
#include "service/envelope.h"
#include "service/library_thread.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

void wake_everybody()
{
  {
    cons_lock lock(paxos.forward_lock);
    paxos.forward_free_cond.broadcast();
    paxos.launch_cond.broadcast();
  }
  {
    cons_lock lock(paxos.propose_lock);
    consensus_cancel(paxos.running_instance);
    paxos.propose_cond.broadcast();
    paxos.propose_idle_cond.broadcast();
  }
  paxos_data_wake_state_offer();
  {
    cons_lock lock(paxos.deliver_lock);
    calls_end_all();
    paxos.deliver_cond.broadcast();
  }
  paxos_leader_watch_wake();
}

// An isolation that has no helper leaves the waking to this thread: it checks the flags once a second and waits for no
// lock of the protocol longer than that.
void *watch_and_wake(void *)
{
  paxos_leader_watch_thread(nullptr);
  wake_everybody();
  return nullptr;
}

struct protocol_threads {
  bool layers_initialised CONS_GUARDED_BY(lifecycle_lock) = false;
  library_thread proposer CONS_GUARDED_BY(lifecycle_lock){"propose-thread", paxos_propose_thread};
  library_thread launch CONS_GUARDED_BY(lifecycle_lock){"launch-thread", paxos_launch_thread};
  library_thread leader_watch CONS_GUARDED_BY(lifecycle_lock){"leader-watch-thread", watch_and_wake};
};
constinit protocol_threads protocol;

bool create_threads() CONS_REQUIRES(lifecycle_lock)
{
  if (!library_thread_create(protocol.proposer, "paxos_start")) {
    return false;
  }
  paxos.proposer_running = true;
  return library_thread_create(protocol.launch, "paxos_start") &&
         library_thread_create(protocol.leader_watch, "paxos_start");
}

// Call it while no thread of the protocol exists.
void clear_run_time_state()
{
  cons_lock forward_lock(paxos.forward_lock);
  cons_lock propose_lock(paxos.propose_lock);
  cons_lock deliver_lock(paxos.deliver_lock);
  for (uint32_t i = 0; i < NODES_MAX; ++i) {
    paxos.delivered_id[i] = 0;
  }
  paxos_waiting.clear();
  paxos.proposal_batch_id = 0;
  paxos.running_instance = nullptr;
  paxos.proposer_idle = false;
  paxos.idle_waiters = 0;
}

int load_durable_state()
{
  if (paxos_log.load() != 0 || paxos_deliver_load() != 0) {
    return -1;
  }
  cons_lock forward_lock(paxos.forward_lock);
  cons_lock propose_lock(paxos.propose_lock);
  paxos_waiting.seen_decided(paxos_log.batch());
  return 0;
}

// Reading the headers of many payload files takes seconds, and the leader watch does not run yet.
int load_payloads()
{
  if (!cons_service.durable_payloads) {
    return paxos_data_load(false);
  }
  const sign_of_life sign;
  int64_t due_us = 0;
  return paxos_data_load(true, [&] {
    if (monotonic_us() >= due_us) {
      sign.send();
      due_us = monotonic_us() + sign_of_life::PERIOD_US;
    }
  });
}

// Before a newer decision can come: then nothing is queued yet, and start, which holds the lifecycle lock, does not
// wait for the host's hooks.
void resume_delivery()
{
  installed_decision last;
  {
    cons_lock lock(paxos.propose_lock);
    last = paxos_log.last();
  }
  paxos_hand_over(last);
}

}  // namespace

int cons_layers_init()
{
  if (protocol.layers_initialised) {
    return 0;
  }
  data_hooks_clear();
  if (paxos_data_init({.deliver = paxos_deliver,
                       .lost = paxos_skip_lost,
                       .handled = paxos_log_handled,
                       .lacking = paxos_note_asker,
                       .uninformed = paxos_note_uninformed,
                       .base_settled = paxos_look_for_base}) != 0) {
    paxos_data_cleanup();
    return -1;
  }
  if (rb_reg_init(paxos_help_newcomer) != 0) {
    rb_reg_cleanup();
    return -1;
  }
  protocol.layers_initialised = true;
  return 0;
}

void cons_layers_cleanup()
{
  protocol.layers_initialised = false;
  rb_reg_cleanup();
  paxos_data_cleanup();
  data_hooks_clear();
}

int paxos_start()
{
  if (!protocol.layers_initialised) {
    return -1;
  }
  if (!paxos.stopped) {
    return 0;
  }
  clear_run_time_state();
  if (load_durable_state() != 0 || load_payloads() != 0) {
    return -1;
  }
  paxos.stopped = false;
  if (paxos_data_start() != 0 || !create_threads()) {
    paxos_stop();
    return -1;
  }
  resume_delivery();
  paxos_gate.open();
  vx_msg_register_recv_hook(paxos_recv, PAXOS_CHANNEL);
  return 0;
}

void paxos_halt()
{
  paxos.stopped = true;
  paxos_data_halt();
}

void paxos_stop()
{
  paxos_halt();
  paxos_gate.close();
  vx_msg_unregister_recv_hook(paxos_recv);
  wake_everybody();
  paxos_gate.wait_empty();
  library_thread_join(protocol.proposer);
  paxos.proposer_running = false;
  library_thread_join(protocol.launch);
  library_thread_join(protocol.leader_watch);
  paxos_data_stop();
  vx_msg_dequeue(nullptr, PAXOS_CHANNEL, MSG_KEY_ALL, 0);
}

int paxos_reset()
{
  if (!protocol.layers_initialised || !paxos.stopped) {
    return -1;
  }
  // After a crash in between the node does not start; it must never run with records of two cluster lives.
  if (paxos_log.forget() != 0) {
    return -1;
  }
  bool is_reset = paxos_data_reset() == 0;
  is_reset = rb_reg_reset() == 0 && is_reset;
  is_reset = paxos_deliver_reset() == 0 && is_reset;
  is_reset = msg_id_next(true) != 0 && is_reset;
  return is_reset ? paxos_log.reset() : -1;
}
