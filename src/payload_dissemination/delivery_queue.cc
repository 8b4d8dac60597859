// The deliver-thread: hands the queued payloads, in decided order, to the layer above.

#include "payload_dissemination/data_state.h"
#include "payload_dissemination/payload_table.h"

namespace
{

void paxos_data_deliver_one(uint32_t id, uint8_t sender, void *)
{
  payload_entry *entry = paxos_data_get_entry(id, sender);
  if (entry != nullptr) {
    paxos_data.callbacks.deliver(id, sender, entry->payload);
    payload_entry_release(entry);
  } else if (paxos_data.callbacks.lost != nullptr) {
    paxos_data.callbacks.lost(id, sender);
  }
}

bool is_queue_empty() CONS_REQUIRES(paxos_data.deliver_queue_lock)
{
  return paxos_data.deliver_pos >= id_batch_count(paxos_data.deliver_batch);
}

}  // namespace

bool paxos_data_note_handled()
{
  if (paxos_data.deliver_pos != id_batch_count(paxos_data.deliver_batch) || paxos_data.still_to_queue != 0 ||
      paxos_data.handled == paxos_data.handed_number) {
    return false;
  }
  paxos_data.handled = paxos_data.handed_number;
  return true;
}

void *paxos_data_deliver_thread(void *)
{
  cons_lock lock(paxos_data.deliver_queue_lock);
  while (!paxos_data.stopped) {
    while (is_queue_empty() && !paxos_data.stopped) {
      paxos_data.deliver_queue_cond.broadcast();  // the pull-thread may be waiting for just that
      paxos_data.deliver_queue_cond.wait(paxos_data.deliver_queue_lock);
    }
    if (paxos_data.stopped) {
      break;
    }
    const uint32_t pos = paxos_data.deliver_pos++;
    id_batch_call_at(&paxos_data.deliver_batch, pos, paxos_data_deliver_one, nullptr);
    if (paxos_data_note_handled() && paxos_data.callbacks.handled != nullptr) {
      paxos_data.callbacks.handled();
    }
  }
  paxos_data.deliver_queue_cond.broadcast();
  return nullptr;
}
