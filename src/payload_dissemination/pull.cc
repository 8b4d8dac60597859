// The pull-thread: walks the decided log, queues what is present, fetches what is missing, skips what is lost.

#include <sys/time.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "common/monotonic_clock.h"
#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/payload_table.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t CHECK_PERIOD_US = 1000000;
constexpr int64_t SILENCE_US = 999999;  // retransmission gap: a request needs a longer silence
constexpr int64_t ANSWER_US = 1000000;  // a holder gets this long to answer a request
constexpr int64_t QUIET_US = 100000;
// A single request, or its answer, may have been dropped on its way.
constexpr uint32_t LOSS_REQUESTS = 2;
// Where a skip could put us beside the others, but must not be put off for good: see is_lost.
constexpr uint32_t DOUBTFUL_LOSS_REQUESTS = 30;
// Who lives has answered a request before, and the pull-thread has looked whether it was quiet.
constexpr int64_t LEND_AFTER_US = 3 * QUIET_US;

// Silence on either clock counts: the wall clock may be set back.
bool is_data_flowing(const xfer_state &record) CONS_REQUIRES(record.lock)
{
  timeval now;
  gettimeofday(&now, nullptr);
  const bool is_set = record.last.tv_sec != 0 || record.last.tv_usec != 0;
  return is_set && timeval_diff_usec(&now, &record.last) <= SILENCE_US && monotonic_us() - record.data_us <= SILENCE_US;
}

// Bit n - 1: node n has answered MISSING.
uint32_t nodes_without_payload(const xfer_state &pull) CONS_REQUIRES(pull.lock)
{
  uint32_t nodes = 0;
  for (uint32_t i = 0; i < cons_service.node_count && i < NODES_MAX; ++i) {
    nodes |= pull.node_state[i] == XFER_NODE_LACKS_IT ? 1u << i : 0;
  }
  return nodes;
}

bool is_quorum_with_us(uint32_t nodes)
{
  return static_cast<uint32_t>(std::popcount(nodes)) + 1 >= cons_service.quorum;
}

// Those of the nodes that have said since their MISSING that they know no newer decision: when they lacked it, neither
// did they.
uint32_t nodes_at_our_decision(const xfer_state &pull, uint32_t nodes) CONS_REQUIRES(pull.lock)
{
  const auto agreed_us = paxos_data.callbacks.agreed_us;
  for (uint32_t i = 0; agreed_us != nullptr && i < NODES_MAX; ++i) {
    nodes &= agreed_us(i + 1) > pull.marked_us[i] ? ~0u : ~(1u << i);
  }
  return nodes;
}

uint64_t decisions_received()
{
  const auto count = paxos_data.callbacks.decisions_received;
  return count != nullptr ? count() : 0;
}

// Whether since our last request there was a moment in which no new decision came, and none is being handled now: a
// node with a slow disk may have thousands of them waiting, and what the oldest names nobody holds any more. Time in
// which nobody looked does not count, this process may have been stopped.
bool was_quiet(int64_t request_us, int64_t &wait_us) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  const uint64_t received = decisions_received();
  const int64_t now_us = monotonic_us();
  quiet_watch &quiet = paxos_data.quiet;
  const bool is_busy = received % 2 != 0;
  const bool has_slept = now_us - quiet.looked_us > 2 * QUIET_US;
  if (is_busy || has_slept || received != quiet.received) {
    quiet.received = received;
    quiet.since_us = now_us;
  }
  quiet.looked_us = now_us;
  if (has_slept) {
    quiet.request_us = 0;
  } else if (now_us - std::max(quiet.since_us, request_us) >= QUIET_US) {
    quiet.request_us = request_us;
  }
  wait_us = std::min(wait_us, QUIET_US);
  return quiet.request_us == request_us && !is_busy;
}

// What follows a loss within a second needs no new patience, if nobody has shown since that he lives or knows more: a
// log that lost its payloads lost many.
bool is_lost_like_the_last(uint32_t lacking_nodes) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  const uint64_t received = decisions_received();
  return paxos_data.pull_xfer.lost_us != 0 && monotonic_us() - paxos_data.pull_xfer.lost_us < ANSWER_US &&
         received % 2 == 0 && received == paxos_data.pull_xfer.lost_received &&
         (lacking_nodes & paxos_data.pull_xfer.lost_lacking) == paxos_data.pull_xfer.lost_lacking;
}

// A quorum lacks the payload, and whoever else may hold it has left our requests unanswered. Otherwise lowers wait_us
// to the moment at which to look again. Two doubts call for more patience:
// - Who lacks it may have begun a new log, which drops the payloads of the old. The requests draw the decision that
//   the answering nodes know; as long as it may have been lost on its way, what they lack says nothing.
// - Only its leader holds the snapshot that a log begins with. A node that lacks a part of the old log would be beside
//   the others without it, and a leader that is silent may just be frozen.
bool is_lost(int64_t &wait_us) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  const uint32_t lacking_nodes = nodes_without_payload(paxos_data.pull_xfer);
  if (!is_quorum_with_us(lacking_nodes)) {
    return false;
  }
  const bool have_all_answered = static_cast<uint32_t>(std::popcount(lacking_nodes)) + 1 >= cons_service.node_count;
  const bool is_base = paxos_data.needs_base && paxos_data.pull_pos == 0 && !have_all_answered;
  if (cons_service.node_count == 1 || (!is_base && is_lost_like_the_last(lacking_nodes))) {
    return true;
  }
  const int64_t request_us = paxos_data.pull_xfer.request_us;
  const int64_t left_us = request_us + ANSWER_US - monotonic_us();
  const bool is_quiet = was_quiet(request_us, wait_us);
  const bool is_doubtful = is_base || !is_quorum_with_us(nodes_at_our_decision(paxos_data.pull_xfer, lacking_nodes));
  if (left_us > 0) {
    wait_us = std::min(wait_us, left_us);
  }
  if (left_us > 0 ||
      paxos_data.pull_xfer.unanswered_requests < (is_doubtful ? DOUBTFUL_LOSS_REQUESTS : LOSS_REQUESTS) || !is_quiet) {
    return false;
  }
  paxos_data.pull_xfer.lost_us = monotonic_us();
  paxos_data.pull_xfer.lost_lacking = lacking_nodes;
  paxos_data.pull_xfer.lost_received = decisions_received();
  return true;
}

// The pieces and marks of another payload say nothing about this one; nor do the marks from a time when an OFFER was
// being fetched, by those who answered too.
void claim(uint32_t id, uint8_t sender) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  if (!xfer_is_for(paxos_data.pull_xfer, id, sender)) {
    xfer_reset(paxos_data.pull_xfer);
    paxos_data.pull_xfer.id = id;
    paxos_data.pull_xfer.sender = sender;
  }
  if (!paxos_data.pull_xfer.is_pulled) {
    paxos_data.pull_xfer.is_pulled = true;
    xfer_forget_answers(paxos_data.pull_xfer);
  }
  if (paxos_data.lent.entry.msg_id == id && paxos_data.lent.entry.sender == sender) {
    paxos_data.pull_xfer.unanswered_requests = paxos_data.lent.requests;
    paxos_data.pull_xfer.request_us = paxos_data.lent.request_us;
    for (uint32_t i = 0; i < NODES_MAX; ++i) {
      paxos_data.pull_xfer.node_state[i] = (paxos_data.lent.lacking >> i & 1) != 0 ? XFER_NODE_LACKS_IT : uint8_t{0};
      paxos_data.pull_xfer.marked_us[i] = paxos_data.lent.since_us;
    }
  }
  paxos_data.lent = {};
}

// Whether the record may go on serving an OFFER: the next request for what it was lent from is not due.
bool is_lent(uint32_t id, uint8_t sender, int64_t &wait_us) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  const int64_t left_us = paxos_data.lent.request_us + ANSWER_US - monotonic_us();
  if (paxos_data.lent.entry.msg_id != id || paxos_data.lent.entry.sender != sender || left_us <= 0) {
    return false;
  }
  was_quiet(paxos_data.lent.request_us, wait_us);  // goes on watching
  wait_us = std::min(wait_us, left_us);
  return true;
}

// Each MISSING wakes us: without the pause, asking again at once would draw the next, at the network's speed. A quorum
// must have answered the last request: who is cut off meanwhile hears of nothing, nor of the newer decision that the
// request would draw.
void request_again(xfer_state &pull, uint32_t id, uint8_t sender) CONS_REQUIRES(pull.lock)
{
  const int64_t now_us = monotonic_us();
  const bool is_due = pull.request_us == 0 || now_us - pull.request_us >= ANSWER_US;
  if (is_due && paxos_data_request_missing(pull, id, sender)) {
    pull.request_us = now_us;
    ++pull.unanswered_requests;
    xfer_clear_marks(pull);
  }
}

id_batch entries_from(const id_batch &batch, uint32_t first)
{
  id_batch rest;
  for (uint32_t i = first; i < id_batch_count(batch); ++i) {
    const id_entry entry = id_batch_entry(batch, i);
    id_batch_add(&rest, entry.msg_id, entry.sender);
  }
  return rest;
}

id_batch first_entries(const id_batch &batch, uint32_t count)
{
  id_batch prefix;
  std::memcpy(prefix.bytes, batch.bytes, 4 + count * ID_ENTRY_SIZE);
  put_le32(prefix.bytes, count);
  return prefix;
}

// Makes the queue mirror the log that we now queue from. False if the layer stops before the queue is empty.
bool switch_queue() CONS_REQUIRES(paxos_data.pull_xfer.lock, paxos_data.deliver_queue_lock)
{
  while (!paxos_data.stopped && paxos_data.deliver_pos < id_batch_count(paxos_data.deliver_batch)) {
    paxos_data.deliver_queue_cond.wait(paxos_data.deliver_queue_lock);
  }
  if (paxos_data.stopped) {
    return false;
  }
  paxos_data_unhash_batch(paxos_data.deliver_batch, paxos_data.pull_batch);
  paxos_data.deliver_batch = first_entries(paxos_data.pull_batch, paxos_data.pull_pos);
  paxos_data.deliver_pos = paxos_data.pull_pos;
  paxos_data.switch_pending = false;
  return true;
}

// An OFFER whose pieces are still on their way. Who submits one payload after the other offers the next while the
// others deliver the last: were it abandoned here, it would wait until its OFFER is repeated.
bool is_just_asked_for(const xfer_state &pull) CONS_REQUIRES(pull.lock)
{
  return !pull.is_pulled && pull.request_us == 0 && pull.piece_map == nullptr;
}

void queue_entry(uint32_t id, uint8_t sender) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  cons_lock queue_lock(paxos_data.deliver_queue_lock);
  if (paxos_data.switch_pending && !switch_queue()) {
    return;
  }
  if (!is_just_asked_for(paxos_data.pull_xfer)) {
    xfer_reset(paxos_data.pull_xfer);
  }
  ++paxos_data.pull_pos;
  --paxos_data.still_to_queue;
  id_batch_add(&paxos_data.deliver_batch, id, sender);
  paxos_data.last_queued = {.sender = sender, .msg_id = id};
  paxos_data.deliver_queue_cond.signal();
}

// Context: int64_t, the longest time until the next check.
void paxos_data_pull_one(uint32_t id, uint8_t sender, void *context) CONS_REQUIRES(paxos_data.pull_xfer.lock)
{
  if (paxos_data_has_entry(id, sender) != 0) {
    paxos_data.has_hole = paxos_data.has_hole && paxos_data.pull_pos != 0;
    queue_entry(id, sender);
    return;
  }
  if (is_lent(id, sender, *static_cast<int64_t *>(context))) {
    return;
  }
  claim(id, sender);
  if (is_lost(*static_cast<int64_t *>(context))) {
    vx_log("CONS: PAXOS DATA: data lost - skipped (id=%u/%hhu)\n", id, sender);
    paxos_data.has_hole = paxos_data.has_hole || paxos_data.pull_pos != 0 || paxos_data.needs_base;
    queue_entry(id, sender);
    return;
  }
  request_again(paxos_data.pull_xfer, id, sender);
}

bool has_prefix(const id_batch &batch, const id_batch &of, uint32_t count)
{
  return id_batch_count(batch) >= count && std::memcmp(batch.bytes + 4, of.bytes + 4, count * ID_ENTRY_SIZE) == 0;
}

// Where to go on in the new log. One that does not begin with what we queued is another log.
void adopt_batch(const id_batch &batch, id_entry last_delivered, uint32_t number)
    CONS_REQUIRES(paxos_data.pull_xfer.lock, paxos_data.deliver_queue_lock)
{
  if (paxos_data.pull_pos == 0 || !has_prefix(batch, paxos_data.pull_batch, paxos_data.pull_pos)) {
    // What was still to be queued will not be.
    paxos_data_unhash_batch(entries_from(paxos_data.pull_batch, paxos_data.pull_pos), batch);
    const bool is_queued = paxos_data.last_queued.msg_id != 0;
    const id_entry behind = is_queued ? paxos_data.last_queued : last_delivered;
    paxos_data.pull_pos = static_cast<uint32_t>(id_batch_find(&batch, behind.msg_id, behind.sender) + 1);
    paxos_data.switch_pending = true;
    // Every decision adds one entry: the one before this log had the number `number` - count.
    const uint64_t known = paxos_data.still_to_queue == 0 ? paxos_data.handed_number : paxos_data.handled.load();
    paxos_data.needs_base = paxos_data.has_hole || known + id_batch_count(batch) < number;
    paxos_data.pull_xfer.lost_us = 0;
    // What was answered about the entry that comes next still holds: decisions must not put off that it is lost.
    const id_entry next =
        paxos_data.pull_pos < id_batch_count(batch) ? id_batch_entry(batch, paxos_data.pull_pos) : id_entry{};
    if (!xfer_is_for(paxos_data.pull_xfer, next.msg_id, next.sender)) {
      paxos_data.pull_xfer.is_pulled = false;
    }
  }
  paxos_data.pull_batch = batch;
  paxos_data.still_to_queue = id_batch_count(batch) - paxos_data.pull_pos;
}

}  // namespace

bool paxos_data_lend_record()
{
  const int64_t now_us = monotonic_us();
  if (!paxos_data.pull_xfer.is_pulled || paxos_data.pull_xfer.piece_map != nullptr ||
      paxos_data.pull_xfer.unanswered_requests < LOSS_REQUESTS ||
      now_us - paxos_data.pull_xfer.request_us < LEND_AFTER_US) {
    return false;
  }
  paxos_data.lent = {.entry = {.sender = paxos_data.pull_xfer.sender, .msg_id = paxos_data.pull_xfer.id},
                     .requests = paxos_data.pull_xfer.unanswered_requests,
                     .request_us = paxos_data.pull_xfer.request_us,
                     .since_us = now_us,
                     .lacking = nodes_without_payload(paxos_data.pull_xfer)};
  xfer_reset(paxos_data.pull_xfer);
  return true;
}

void paxos_data_note_holder(uint8_t from, uint32_t id, uint8_t sender)
{
  if (from == 0) {
    return;
  }
  if ((paxos_data.pull_xfer.lost_lacking >> (from - 1) & 1) == 0) {
    paxos_data.pull_xfer.lost_us = 0;
  }
  if (paxos_data.lent.entry.msg_id == id && paxos_data.lent.entry.sender == sender) {
    paxos_data.lent.requests = 0;
    paxos_data.lent.lacking = 0;
  }
}

bool paxos_data_request_missing(xfer_state &record, uint32_t id, uint8_t sender)
{
  if (is_data_flowing(record)) {
    return false;
  }
  record.activity_us = monotonic_us();
  if (record.piece_map == nullptr) {
    record.id = id;
    record.sender = sender;
    return paxos_data_bcast_req(id, sender, 0, REQ_TO_THE_END);
  }
  bool has_asked = false;
  for (uint32_t a = 0; a < record.pieces;) {
    if (record.piece_map[a] != 0) {
      ++a;
      continue;
    }
    uint32_t b = a + 1;
    while (b < record.pieces && record.piece_map[b] == 0) {
      ++b;
    }
    const uint64_t length = uint64_t{DATA_PIECE_SIZE} * (b - a);
    has_asked |= paxos_data_bcast_req(id, sender, DATA_PIECE_SIZE * a,
                                      static_cast<uint32_t>(std::min(length, uint64_t{REQ_TO_THE_END})));
    a = b;
  }
  return has_asked;
}

void paxos_data_pull(const id_batch &batch, id_entry last_delivered, uint32_t number)
{
  bool is_handled = false;
  {
    cons_lock pull_lock(paxos_data.pull_xfer.lock);
    cons_lock queue_lock(paxos_data.deliver_queue_lock);
    if (number < paxos_data.handed_number) {
      return;
    }
    adopt_batch(batch, last_delivered, number);
    paxos_data.handed_number = number;
    paxos_data.pull_xfer.changed_cond.broadcast();
    is_handled = paxos_data_note_handled();
  }
  if (is_handled && paxos_data.callbacks.handled != nullptr) {
    paxos_data.callbacks.handled();
  }
}

void *paxos_data_pull_thread(void *)
{
  cons_lock lock(paxos_data.pull_xfer.lock);
  while (!paxos_data.stopped) {
    const uint32_t pos = paxos_data.pull_pos;
    int64_t wait_us = CHECK_PERIOD_US;
    id_batch_call_at(&paxos_data.pull_batch, pos, paxos_data_pull_one, &wait_us);
    if (paxos_data.pull_pos == pos && !paxos_data.stopped) {
      paxos_data.pull_xfer.changed_cond.wait_for_us(paxos_data.pull_xfer.lock, wait_us);
    }
  }
  return nullptr;
}
