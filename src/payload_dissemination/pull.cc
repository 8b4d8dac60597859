// The pull-thread: walks the decided log, queues what is present, fetches what is missing, skips what is lost.

#include <algorithm>
#include <cstring>

#include "payload_dissemination/data_state.h"
#include "payload_dissemination/payload_table.h"
#include "vx_host.h"

namespace
{

constexpr int64_t CHECK_PERIOD_US = 1000000;

id_batch entries_from(const id_batch &batch, uint32_t first)
{
  id_batch rest;
  for (uint32_t i = first; i < id_batch_count(batch); ++i) {
    const id_entry entry = id_batch_entry(batch, i);
    id_batch_add(&rest, entry.msg_id, entry.sender);
  }
  return rest;
}

void queue_next() CONS_REQUIRES(paxos_data.pull.lock)
{
  if (paxos_data.pull.is_pulled) {
    pull_record_reset(paxos_data.pull);
  }
  paxos_data.pull.is_awaited = false;
  paxos_data_queue_next();
}

// Each MISSING wakes this thread: a second must pass between two requests, or the next MISSING would come at the
// network's speed. A node that answered MISSING without a word about its decision may know none: it is sent ours.
void request(id_entry entry, const loss_watch::advice &advice) CONS_REQUIRES(paxos_data.pull.lock)
{
  if (!pull_record_claim_for_log(paxos_data.pull, entry) || !pull_record_request(paxos_data.pull)) {
    return;
  }
  if (advice.nodes_without_word != 0 && paxos_data.callbacks.uninformed != nullptr) {
    paxos_data.callbacks.uninformed(advice.nodes_without_word);
  }
  paxos_data.losses.requested();
}

// Context: int64_t, the longest time until the next check.
void paxos_data_pull_one(uint32_t id, uint8_t sender, void *context) CONS_REQUIRES(paxos_data.pull.lock)
{
  const id_entry entry = {.sender = sender, .msg_id = id};
  if (paxos_data_has_entry(id, sender) != 0) {
    queue_next();
    return;
  }
  const loss_watch::advice advice = paxos_data.losses.look(entry);
  if (advice.is_lost) {
    vx_log("CONS: PAXOS DATA: data lost - skipped (id=%u/%hhu)\n", id, sender);
    queue_next();
    return;
  }
  if (advice.is_request_due) {
    request(entry, advice);
  }
  *static_cast<int64_t *>(context) = advice.look_again_us;
}

bool has_prefix(const id_batch &batch, const id_batch &of, uint32_t count)
{
  return id_batch_count(batch) >= count && std::memcmp(batch.bytes + 4, of.bytes + 4, count * ID_ENTRY_SIZE) == 0;
}

// Where to go on in the new log. One that does not begin with what is queued is another log.
void adopt_batch(const id_batch &batch, id_entry last_delivered)
    CONS_REQUIRES(paxos_data.pull.lock, paxos_data.deliver_queue_lock)
{
  if (paxos_data.pull_pos == 0 || !has_prefix(batch, paxos_data.pull_batch, paxos_data.pull_pos)) {
    // What was still to be queued will not be.
    paxos_data_unhash_batch(entries_from(paxos_data.pull_batch, paxos_data.pull_pos), batch);
    const bool is_queued = paxos_data.last_queued.msg_id != 0;
    const id_entry behind = is_queued ? paxos_data.last_queued : last_delivered;
    paxos_data.pull_pos = static_cast<uint32_t>(id_batch_find(&batch, behind.msg_id, behind.sender) + 1);
    paxos_data.switch_pending = true;
  }
  paxos_data.pull_batch = batch;
  paxos_data.still_to_queue = id_batch_count(batch) - paxos_data.pull_pos;
}

}  // namespace

void paxos_data_pull(const id_batch &batch, id_entry last_delivered, uint32_t number)
{
  bool is_handled = false;
  {
    cons_lock pull_lock(paxos_data.pull.lock);
    cons_lock queue_lock(paxos_data.deliver_queue_lock);
    if (number < paxos_data.handed_number) {
      return;
    }
    adopt_batch(batch, last_delivered);
    paxos_data.handed_number = number;
    paxos_data.pull.changed_cond.broadcast();
    is_handled = paxos_data_note_handled();
  }
  if (is_handled && paxos_data.callbacks.handled != nullptr) {
    paxos_data.callbacks.handled();
  }
}

void *paxos_data_pull_thread(void *)
{
  cons_lock lock(paxos_data.pull.lock);
  while (!paxos_data.stopped) {
    const uint32_t pos = paxos_data.pull_pos;
    int64_t wait_us = CHECK_PERIOD_US;
    id_batch_call_at(&paxos_data.pull_batch, pos, paxos_data_pull_one, &wait_us);
    if (paxos_data.pull_pos == pos && !paxos_data.stopped) {
      paxos_data.pull.changed_cond.wait_for_us(paxos_data.pull.lock, wait_us);
    }
  }
  return nullptr;
}
