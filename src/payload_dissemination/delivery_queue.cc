// The queue of entries that are ready to be delivered. The deliver-thread hands them to the layer above in decided
// order.

#include <cstring>

#include "payload_dissemination/data_state.h"
#include "payload_dissemination/payload_table.h"

namespace
{

id_batch first_entries(const id_batch &batch, uint32_t count)
{
  id_batch prefix;
  std::memcpy(prefix.bytes, batch.bytes, 4 + count * ID_ENTRY_SIZE);
  put_le32(prefix.bytes, count);
  return prefix;
}

bool is_queue_empty() CONS_REQUIRES(paxos_data.deliver_queue_lock)
{
  return paxos_data.deliver_pos >= id_batch_count(paxos_data.deliver_batch);
}

// Waits until the queue is empty and makes it hold the new log. Returns false if the layer stops before that.
bool switch_queue() CONS_REQUIRES(paxos_data.pull.lock, paxos_data.deliver_queue_lock)
{
  while (!paxos_data_stopped && !is_queue_empty()) {
    paxos_data.deliver_queue_cond.wait(paxos_data.deliver_queue_lock);
  }
  if (paxos_data_stopped) {
    return false;
  }
  paxos_data_unhash_batch(paxos_data.deliver_batch, 0, paxos_data.pull_batch);
  paxos_data.deliver_batch = first_entries(paxos_data.pull_batch, paxos_data.pull_pos);
  paxos_data.deliver_pos = paxos_data.pull_pos;
  paxos_data.switch_pending = false;
  return true;
}

void paxos_data_deliver_one(uint32_t id, uint8_t sender)
{
  payload_entry *entry = paxos_data_get_entry(id, sender);
  if (entry != nullptr) {
    paxos_data.callbacks.deliver(id, sender, entry->payload);
    payload_entry_release(entry);
  } else {
    paxos_data.callbacks.lost(id, sender);
  }
}

}  // namespace

void paxos_data_queue_next()
{
  cons_lock queue_lock(paxos_data.deliver_queue_lock);
  if (paxos_data.switch_pending && !switch_queue()) {
    return;
  }
  const id_entry entry = id_batch_entry(paxos_data.pull_batch, paxos_data.pull_pos);
  ++paxos_data.pull_pos;
  --paxos_data.still_to_queue;
  id_batch_add(&paxos_data.deliver_batch, entry.msg_id, entry.sender);
  paxos_data.last_queued = entry;
  paxos_data.deliver_queue_cond.signal();
}

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
  while (!paxos_data_stopped) {
    while (is_queue_empty() && !paxos_data_stopped) {
      paxos_data.deliver_queue_cond.broadcast();  // the pull-thread may wait for an empty queue
      paxos_data.deliver_queue_cond.wait(paxos_data.deliver_queue_lock);
    }
    if (paxos_data_stopped) {
      break;
    }
    const uint32_t pos = paxos_data.deliver_pos++;
    id_batch_call_at(&paxos_data.deliver_batch, pos, paxos_data_deliver_one);
    if (paxos_data_note_handled()) {
      paxos_data.callbacks.handled();
    }
  }
  paxos_data.deliver_queue_cond.broadcast();
  return nullptr;
}
