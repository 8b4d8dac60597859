#include "ordered_broadcast/delivery.h"

#include <algorithm>

#include "ordered_broadcast/data_hooks.h"
#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/stored_record.h"
#include "ordered_broadcast/waiting_ids.h"
#include "service/host_hook.h"
#include "service/isolation.h"
#include "vx_host.h"

namespace
{

constexpr const char *DELIVER_FILE = "/flashdisk/cons/paxos_deliver";

// Records the entry as the last one delivered here. Returns false after isolating the node.
bool save_last_delivered(id_entry entry) CONS_REQUIRES(paxos.deliver_lock)
{
  paxos.last_delivered = entry;
  uint8_t record[ID_ENTRY_SIZE];
  id_entry_put(record, entry);
  const bool is_saved = store_write(DELIVER_FILE, record, sizeof record) == 0;
  if (!is_saved) {
    paxos_isolate();
  }
  return is_saved;
}

void call_hook(uint32_t type, const uint8_t *bytes, uint32_t length, uint32_t full_state)
{
  cons_lock lock(data_hooks.data_hooks_lock);
  if (type >= CONS_DATA_TYPES) {
    return;
  }
  if (const vx_cons_deliver_hook deliver = data_hooks.slots[type].deliver) {
    vx_log("CONS: PAXOS: DELIVER calling hook\n");
    {
      const host_hook_call call;
      deliver(bytes, length, full_state);
    }
    vx_log("CONS: PAXOS: DELIVER hook returned\n");
  }
}

// A record that does not fit ends the walk. The records before it are delivered.
void deliver_records(const payload_buf *payload)
{
  const uint32_t size = payload_byte_count(payload);
  const uint8_t *records = payload + PAYLOAD_HEADER_SIZE;
  for (uint32_t offset = 0; size - offset >= RECORD_HEADER_SIZE;) {
    const uint32_t type = get_le32(records + offset);
    const uint32_t length = get_le32(records + offset + 4);
    if (length > size - offset - RECORD_HEADER_SIZE) {
      vx_log("%s(): corrupted message set received\n", "deliver");
      return;
    }
    call_hook(type, records + offset + RECORD_HEADER_SIZE, length, payload_full_state(payload));
    offset += length + RECORD_HEADER_SIZE;
  }
}

void note_delivered(uint32_t msg_id, uint8_t sender) CONS_REQUIRES(paxos.forward_lock, paxos.deliver_lock)
{
  const uint32_t index = sender - 1u;
  paxos.delivered_id[index] = std::max(paxos.delivered_id[index], msg_id);
  if (index == paxos_own_index()) {
    paxos_waiting.delivered(msg_id);
    calls_delivered(msg_id);
    paxos.forward_free_cond.broadcast();
  }
}

// Ends the calls whose message this snapshot has swallowed.
void settle_state(id_entry state, int verdict) CONS_REQUIRES(paxos.forward_lock, paxos.deliver_lock)
{
  if (calls_settle_state(state, verdict, paxos_waiting.own())) {
    paxos_waiting.settled();
  }
  paxos.deliver_cond.broadcast();
}

}  // namespace

int paxos_deliver_load()
{
  uint8_t record[ID_ENTRY_SIZE];
  if (store_read(DELIVER_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return -1;
  }
  cons_lock lock(paxos.deliver_lock);
  paxos.last_delivered = id_entry_get(record);
  return 0;
}

int paxos_deliver_reset()
{
  cons_lock lock(paxos.deliver_lock);
  return save_last_delivered({}) ? 0 : -1;
}

void paxos_deliver(uint32_t msg_id, uint8_t sender, const payload_buf *payload)
{
  vx_log("CONS: PAXOS: DELIVER (id=%u/%hhu)\n", msg_id, sender);
  deliver_records(payload);
  const id_entry entry = {.sender = sender, .msg_id = msg_id};
  cons_lock forward_lock(paxos.forward_lock);
  cons_lock deliver_lock(paxos.deliver_lock);
  save_last_delivered(entry);
  if (payload_full_state(payload) == 0) {
    note_delivered(msg_id, sender);
  }
  settle_state(entry, 0);
}

void paxos_skip_lost(uint32_t msg_id, uint8_t sender)
{
  cons_lock forward_lock(paxos.forward_lock);
  cons_lock deliver_lock(paxos.deliver_lock);
  settle_state({.sender = sender, .msg_id = msg_id}, -1);
}

void paxos_log_handled()
{
  cons_lock lock(paxos.propose_lock);
  paxos.propose_cond.signal();
}
