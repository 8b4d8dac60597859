#include "payload_dissemination/paxos_data.h"

#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/loss_watch.h"
#include "payload_dissemination/payload_files.h"
#include "payload_dissemination/payload_store.h"
#include "payload_dissemination/payload_table.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

void clear_queue()
{
  cons_lock lock(paxos_data.deliver_queue_lock);
  paxos_data.deliver_batch = {};
  paxos_data.deliver_pos = 0;
}

// Drops what is queued but not delivered. The decision that start loads hands it over again.
void prepare_batches()
{
  cons_lock pull_lock(paxos_data.pull.lock);
  cons_lock queue_lock(paxos_data.deliver_queue_lock);
  put_le32(paxos_data.deliver_batch.bytes, paxos_data.deliver_pos);
  paxos_data.pull_batch = {};
  paxos_data.pull_pos = 0;
  paxos_data.switch_pending = true;
  paxos_data.last_queued = {};
  paxos_data.done_ids = {};
  paxos_data.pull_number = 0;
  paxos_data.is_sweep_due = false;
  paxos_data.repair_pos = 0;
  paxos_data.settled_base = 0;
  paxos_data.handed_number = 0;
  paxos_data.still_to_queue = 0;
  paxos_data.handled = 0;
}

}  // namespace

int paxos_data_init(const paxos_data_callbacks &callbacks)
{
  if (paxos_data.initialised) {
    return 0;
  }
  payload_table_create();
  clear_queue();
  paxos_data.callbacks = callbacks;
  paxos_data.initialised = true;
  return 0;
}

void paxos_data_cleanup()
{
  paxos_data_stop();
  paxos_data.callbacks = {};
  payload_table_delete();
  paxos_data.initialised = false;
}

int paxos_data_reset()
{
  if (!paxos_data.initialised || !paxos_data_stopped) {
    return -1;
  }
  payload_table_clear();
  clear_queue();
  return payload_store_remove_all();
}

int paxos_data_load(bool is_durable, const std::function<void()> &progress)
{
  if (!paxos_data.initialised) {
    return -1;
  }
  return payload_files_load(is_durable, progress);
}

int paxos_data_start()
{
  if (!paxos_data.initialised) {
    return -1;
  }
  if (!paxos_data_stopped) {
    return 0;
  }
  prepare_batches();
  paxos_data_losses->start(cons_service.node_count, cons_service.node_id);
  paxos_data_stopped = false;
  if (!library_thread_create(paxos_data.deliver_thread, "paxos_data_start") ||
      !library_thread_create(paxos_data.pull_thread, "paxos_data_start") || !payload_files_start()) {
    paxos_data_stop();
    return -1;
  }
  paxos_data.recv_gate.open();
  vx_msg_register_recv_hook(paxos_data_recv, PAXOS_DATA_CHANNEL);
  return 0;
}

void paxos_data_halt()
{
  paxos_data_stopped = true;
}

void paxos_data_stop()
{
  paxos_data_halt();
  paxos_data.recv_gate.close();
  vx_msg_unregister_recv_hook(paxos_data_recv);
  // The queue comes first, since the pull-thread may wait for it with the pull record's lock held.
  paxos_data.deliver_queue_cond.wake_all(paxos_data.deliver_queue_lock);
  paxos_data.pull.changed_cond.wake_all(paxos_data.pull.lock);
  paxos_data.offer.changed_cond.wake_all(paxos_data.offer.lock);
  library_thread_join(paxos_data.pull_thread);
  library_thread_join(paxos_data.deliver_thread);
  payload_files_stop();
  paxos_data.recv_gate.wait_empty();
  {
    cons_lock lock(paxos_data.pull.lock);
    pull_record_reset(paxos_data.pull);
    paxos_data.pull.is_awaited = false;
  }
  cons_lock lock(paxos_data.offer.lock);
  if (paxos_data.offer.entry.msg_id != 0) {
    offer_record_free(paxos_data.offer);
    vx_msg_dequeue(nullptr, PAXOS_DATA_CHANNEL, OFFER_KEY, 0);
  }
}

bool paxos_data_is_base_settled(id_entry base)
{
  return paxos_data.settled_base == paxos_data_packed(base);
}

uint32_t paxos_data_handled()
{
  return paxos_data.handled;
}
