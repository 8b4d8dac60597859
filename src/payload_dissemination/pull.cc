// The pull-thread walks the decided log. It queues the entries that are here, fetches missing ones and skips lost ones.

#include <algorithm>
#include <cstring>

#include "common/monotonic_clock.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/loss_watch.h"
#include "payload_dissemination/payload_files.h"
#include "payload_dissemination/payload_table.h"
#include "payload_dissemination/payload_upkeep.h"
#include "vx_host.h"

namespace
{

constexpr int64_t CHECK_PERIOD_US = 1000000;
constexpr int64_t SWEEP_PERIOD_US = 1000000;

// Whether the record fetches what was queued before and is needed again.
bool is_repairing() CONS_REQUIRES(paxos_data.pull.lock)
{
  return payload_upkeep.is_on && paxos_data.repair_pos < paxos_data.pull_pos &&
         id_batch_entry(paxos_data.pull_batch, paxos_data.repair_pos) == paxos_data.pull.entry;
}

void queue_next() CONS_REQUIRES(paxos_data.pull.lock)
{
  if (paxos_data.pull.is_pulled && !is_repairing()) {
    pull_record_reset(paxos_data.pull);
  }
  paxos_data.pull.is_awaited = false;
  paxos_data_queue_next();
}

// Each MISSING wakes this thread. Without a second between two requests, requests and MISSINGs would follow each other
// at network speed. A node that answered MISSING but did not say which decision it knows may know none: tell it.
void request(id_entry entry, const loss_judge::advice &advice) CONS_REQUIRES(paxos_data.pull.lock)
{
  if (!pull_record_claim_for_log(paxos_data.pull, entry) || !pull_record_may_request(paxos_data.pull)) {
    return;
  }
  if (advice.nodes_without_word != 0) {
    paxos_data.callbacks.uninformed(advice.nodes_without_word);
  }
  paxos_data_losses->requested(monotonic_us());  // before the first answer
  pull_record_request(paxos_data.pull);
}

// Requests the entry if a request is due. Returns whether it is lost. Lowers wait_us to the time of the next look.
bool fetch(id_entry entry, int64_t &wait_us) CONS_REQUIRES(paxos_data.pull.lock)
{
  const bool is_held = payload_table_knows(entry);
  const loss_judge::advice advice = paxos_data_losses->look(entry, is_held, monotonic_us());
  if (!advice.is_lost && advice.is_request_due) {
    request(entry, advice);
  }
  wait_us = std::min(wait_us, advice.look_again_us);
  if (advice.is_lost && is_held) {
    paxos_data_unhash_entry(entry.msg_id, entry.sender);  // from now on this node lacks it too, and says so
  }
  return advice.is_lost;
}

void paxos_data_pull_one(id_entry entry, int64_t &wait_us) CONS_REQUIRES(paxos_data.pull.lock)
{
  if (paxos_data_has_entry(entry.msg_id, entry.sender) != 0) {
    queue_next();
  } else if (fetch(entry, wait_us)) {
    vx_log("CONS: PAXOS DATA: data lost - skipped (id=%u/%hhu)\n", entry.msg_id, entry.sender);
    queue_next();
  }
}

// With durable payloads, once all of the log is queued: fetches damaged payloads again, so that a quorum still holds
// them, and the snapshot that begins the log, which a leader needs.
void repair(int64_t &wait_us) CONS_REQUIRES(paxos_data.pull.lock)
{
  if (payload_upkeep.needs_repair.exchange(false)) {
    paxos_data.repair_pos = 0;
  }
  for (; paxos_data.repair_pos < paxos_data.pull_pos; ++paxos_data.repair_pos) {
    const id_entry entry = id_batch_entry(paxos_data.pull_batch, paxos_data.repair_pos);
    const bool is_wanted = paxos_data.repair_pos == 0 ? paxos_data_has_entry(entry.msg_id, entry.sender) == 0
                                                      : payload_table_is_damaged(entry);
    if (is_wanted && !fetch(entry, wait_us)) {
      return;
    }
    if (paxos_data.repair_pos == 0) {
      paxos_data.settled_base = paxos_data_packed(entry);
      paxos_data.callbacks.base_settled();
    }
  }
  if (paxos_data.pull.is_pulled) {
    pull_record_reset(paxos_data.pull);
  }
  paxos_data.pull.is_awaited = false;
}

// Removes superseded payloads from the table. Not while a switch is pending, for the queue still names the old log.
void sweep_if_due(int64_t &wait_us) CONS_REQUIRES(paxos_data.pull.lock)
{
  if (!paxos_data.is_sweep_due || paxos_data.switch_pending) {
    return;
  }
  const int64_t now_us = monotonic_us();
  const int64_t left_us = paxos_data.swept_us + SWEEP_PERIOD_US - now_us;
  if (left_us > 0) {
    wait_us = std::min(wait_us, left_us);
    return;
  }
  payload_table_sweep(paxos_data.pull_batch, paxos_data.done_ids, paxos_data.pull_number);
  paxos_data.swept_us = now_us;
  paxos_data.is_sweep_due = false;
}

bool has_prefix(const id_batch &batch, const id_batch &of, uint32_t count)
{
  return id_batch_count(batch) >= count && std::memcmp(batch.bytes + 4, of.bytes + 4, count * ID_ENTRY_SIZE) == 0;
}

// Finds the position in the new batch. A batch that does not begin with the queued entries is another log.
void adopt_batch(const id_batch &batch, id_entry last_delivered)
    CONS_REQUIRES(paxos_data.pull.lock, paxos_data.deliver_queue_lock)
{
  if (paxos_data.pull_pos == 0 || !has_prefix(batch, paxos_data.pull_batch, paxos_data.pull_pos)) {
    // The entries not queued yet never will be.
    paxos_data_unhash_batch(paxos_data.pull_batch, paxos_data.pull_pos, batch);
    const bool is_queued = paxos_data.last_queued.msg_id != 0;
    const id_entry behind = is_queued ? paxos_data.last_queued : last_delivered;
    paxos_data.pull_pos = static_cast<uint32_t>(id_batch_find(&batch, behind.msg_id, behind.sender) + 1);
    paxos_data.switch_pending = true;
    paxos_data.repair_pos = 0;
    paxos_data.settled_base = 0;
    paxos_data.swept_us = 0;
  }
  paxos_data.pull_batch = batch;
  paxos_data.still_to_queue = id_batch_count(batch) - paxos_data.pull_pos;
}

}  // namespace

void paxos_data_pull(const id_batch &batch, id_entry last_delivered, uint32_t number,
                     const std::array<uint32_t, NODES_MAX> &done_ids)
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
    paxos_data.pull_number = number;
    paxos_data.done_ids = done_ids;
    paxos_data.is_sweep_due = true;
    paxos_data.pull.changed_cond.broadcast();
    is_handled = paxos_data_note_handled();
  }
  if (is_handled) {
    paxos_data.callbacks.handled();
  }
}

void *paxos_data_pull_thread(void *)
{
  cons_lock lock(paxos_data.pull.lock);
  while (!paxos_data_stopped) {
    const uint32_t pos = paxos_data.pull_pos;
    int64_t wait_us = CHECK_PERIOD_US;
    if (pos < id_batch_count(paxos_data.pull_batch)) {
      paxos_data_pull_one(id_batch_entry(paxos_data.pull_batch, pos), wait_us);
    } else if (payload_upkeep.is_on) {
      repair(wait_us);
    }
    sweep_if_due(wait_us);
    if (paxos_data.pull_pos == pos && !paxos_data_stopped) {
      paxos_data.pull.changed_cond.wait_for_us(paxos_data.pull.lock, wait_us);
    }
  }
  return nullptr;
}
