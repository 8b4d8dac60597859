#include "payload_dissemination/pull_record.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "common/monotonic_clock.h"
#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_messages.h"
#include "vx_host.h"

namespace
{

constexpr int64_t SILENCE_US = 999999;  // a request needs a longer silence
constexpr int64_t ABANDONED_US = 3000000;
constexpr int64_t DAMAGED_PAUSE_US = 1000000;
// A live node answers a request within this time. The pull-thread asks again after a second.
constexpr int64_t ANSWER_US = 300000;

// Silence on either clock counts, since the wall clock may be set back.
bool is_data_flowing(const pull_record &record) CONS_REQUIRES(record.lock)
{
  if (record.data_us == 0 || monotonic_us() - record.data_us > SILENCE_US) {
    return false;
  }
  timeval now;
  gettimeofday(&now, nullptr);
  return timeval_diff_usec(&now, &record.last) <= SILENCE_US;
}

bool is_free(const pull_record &record) CONS_REQUIRES(record.lock)
{
  return record.entry.msg_id == 0;
}

// The node that sent the OFFER may have died. Only DATA proves that it is alive.
bool is_abandoned(const pull_record &record) CONS_REQUIRES(record.lock)
{
  return !record.is_pulled && monotonic_us() - std::max(record.claimed_us, record.data_us) > ABANDONED_US;
}

bool is_unanswered(const pull_record &record) CONS_REQUIRES(record.lock)
{
  return record.is_pulled && record.requested_us != 0 && monotonic_us() - record.requested_us > ANSWER_US &&
         !is_data_flowing(record);
}

void claim(pull_record &record, id_entry entry) CONS_REQUIRES(record.lock)
{
  pull_record_reset(record);
  record.entry = entry;
  record.claimed_us = monotonic_us();
}

void drop_assembly(pull_record &record) CONS_REQUIRES(record.lock)
{
  std::free(record.buffer);
  std::free(record.piece_map);
  record.buffer = nullptr;
  record.piece_map = nullptr;
  record.total = 0;
  record.pieces = 0;
  record.pieces_missing = 0;
}

bool begin_assembly(pull_record &record, uint32_t total) CONS_REQUIRES(record.lock)
{
  record.pieces = total / DATA_PIECE_SIZE + (total % DATA_PIECE_SIZE != 0 ? 1 : 0);
  record.pieces_missing = record.pieces;
  record.total = total;
  record.buffer = static_cast<uint8_t *>(std::calloc(total, 1));
  record.piece_map = static_cast<uint8_t *>(std::calloc(record.pieces, 1));
  if (record.buffer == nullptr || record.piece_map == nullptr) {
    drop_assembly(record);
    return false;
  }
  return true;
}

payload_buf *finish(pull_record &record) CONS_REQUIRES(record.lock)
{
  payload_buf *payload = nullptr;
  if (uint64_t{payload_byte_count(record.buffer)} + PAYLOAD_HEADER_SIZE == record.total) {
    std::swap(payload, record.buffer);
  } else {
    record.damaged = record.entry;
    record.damaged_until_us = monotonic_us() + DAMAGED_PAUSE_US;
  }
  pull_record_reset(record);
  return payload;
}

}  // namespace

void pull_record_reset(pull_record &record)
{
  drop_assembly(record);
  record.entry = {};
  record.is_pulled = false;
  record.last = {};
  record.data_us = 0;
  record.claimed_us = 0;
  record.requested_us = 0;
}

bool pull_record_claim_for_log(pull_record &record, id_entry entry)
{
  if (record.entry != entry) {
    record.is_awaited = !is_free(record) && is_data_flowing(record);
    if (record.is_awaited) {
      return false;
    }
    claim(record, entry);
  }
  record.is_awaited = false;
  record.is_pulled = true;
  return true;
}

bool pull_record_claim_for_offer(pull_record &record, id_entry entry)
{
  if (record.entry == entry) {
    return true;
  }
  if (record.is_awaited || !(is_free(record) || is_abandoned(record) || is_unanswered(record))) {
    return false;
  }
  claim(record, entry);
  return true;
}

bool pull_record_may_request(const pull_record &record)
{
  return !is_data_flowing(record) && (record.entry != record.damaged || monotonic_us() >= record.damaged_until_us);
}

void pull_record_request(pull_record &record)
{
  if (!pull_record_may_request(record)) {
    return;
  }
  record.requested_us = monotonic_us();
  const id_entry entry = record.entry;
  if (record.piece_map == nullptr) {
    paxos_data_bcast_req(entry.msg_id, entry.sender, 0, REQ_TO_THE_END);
  }
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
    paxos_data_bcast_req(entry.msg_id, entry.sender, DATA_PIECE_SIZE * a,
                         static_cast<uint32_t>(std::min(length, uint64_t{REQ_TO_THE_END})));
    a = b;
  }
}

bool pull_record_accepts(pull_record &record, id_entry entry, const data_piece &piece)
{
  if (record.entry != entry) {
    return false;
  }
  if (record.piece_map != nullptr && record.total != piece.total) {
    if (monotonic_us() - record.data_us <= SILENCE_US) {
      return false;
    }
    drop_assembly(record);
  }
  return true;
}

payload_buf *pull_record_add(pull_record &record, const data_piece &piece)
{
  gettimeofday(&record.last, nullptr);
  record.data_us = monotonic_us();
  if (record.piece_map == nullptr && !begin_assembly(record, piece.total)) {
    return nullptr;
  }
  uint8_t &is_received = record.piece_map[piece.offset / DATA_PIECE_SIZE];
  if (is_received == 0) {
    cons_crypt(record.buffer + piece.offset, piece.bytes, piece.length, 0);
    is_received = 1;
    --record.pieces_missing;
  }
  return record.pieces_missing == 0 ? finish(record) : nullptr;
}
