#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <span>

#include "common/monotonic_clock.h"
#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/payload_table.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr int64_t ABANDONED_US = 3000000;
constexpr int64_t WRONG_SIZE_SILENCE_US = 1000000;

struct data_header {
  uint16_t type;
  uint8_t from;
  uint8_t sender;
  uint32_t id;
};

// A piece whose place in a payload of its total is sound.
struct data_piece {
  uint32_t offset;
  uint32_t total;
  uint32_t length;
  const uint8_t *bytes;
};

bool is_node(uint8_t id)
{
  return id >= 1 && id <= NODES_MAX;
}

bool parse_piece(std::span<const uint8_t> body, data_piece &piece)
{
  if (body.size() < DATA_HEADER_SIZE) {
    return false;
  }
  piece = {.offset = get_le32(body.data() + 8),
           .total = get_le32(body.data() + 12),
           .length = get_le32(body.data() + 16),
           .bytes = body.data() + DATA_HEADER_SIZE};
  if (piece.total < PAYLOAD_HEADER_SIZE || piece.offset >= piece.total || piece.offset % DATA_PIECE_SIZE != 0) {
    return false;
  }
  const uint32_t rest = piece.total - piece.offset;
  return piece.length == (rest < DATA_PIECE_SIZE ? rest : DATA_PIECE_SIZE) &&
         piece.length <= body.size() - DATA_HEADER_SIZE;
}

// Begun by an OFFER whose sender has gone: one that lives has us ask again after each second of silence. Nothing else
// would end it while no message gets ordered, and none can be while offers find the record busy.
bool is_abandoned(const xfer_state &pull) CONS_REQUIRES(pull.lock)
{
  return !pull.is_pulled && monotonic_us() - pull.activity_us > ABANDONED_US;
}

void paxos_data_recv_offer(const data_header &hdr)
{
  vx_log("CONS: PAXOS DATA: OFFER (s=%u, id=%u/%u)\n", hdr.from, hdr.id, hdr.sender);
  if (paxos_data_has_entry(hdr.id, hdr.sender) != 0) {
    paxos_data_bcast_complete(hdr.id, hdr.sender);
    return;
  }
  cons_lock lock(paxos_data.pull_xfer.lock);
  paxos_data_note_holder(hdr.from, hdr.id, hdr.sender);
  if (!xfer_is_for(paxos_data.pull_xfer, hdr.id, hdr.sender) && is_abandoned(paxos_data.pull_xfer)) {
    xfer_reset(paxos_data.pull_xfer);
  }
  if (paxos_data.pull_xfer.id == 0 ||
      (!xfer_is_for(paxos_data.pull_xfer, hdr.id, hdr.sender) && paxos_data_lend_record())) {
    paxos_data.pull_xfer.id = hdr.id;
    paxos_data.pull_xfer.sender = hdr.sender;
  }
  if (xfer_is_for(paxos_data.pull_xfer, hdr.id, hdr.sender)) {
    paxos_data_request_missing(paxos_data.pull_xfer, hdr.id, hdr.sender);
  }
}

void paxos_data_recv_req(const data_header &hdr, std::span<const uint8_t> body)
{
  const uint32_t offset = get_le32(body.data() + 8);
  const uint32_t length = get_le32(body.data() + 12);
  vx_log("CONS: PAXOS DATA: REQ (s=%u id=%u/%u, o=%u, l=%u)\n", hdr.from, hdr.id, hdr.sender, offset, length);
  payload_entry *entry = paxos_data_get_entry(hdr.id, hdr.sender);
  if (entry == nullptr) {
    if (paxos_data.callbacks.lacking != nullptr) {
      paxos_data.callbacks.lacking(hdr.id, hdr.sender, hdr.from);
    }
    paxos_data_bcast_missing(hdr.id, hdr.sender);
    return;
  }
  paxos_data_send_data(hdr.id, hdr.sender, entry->payload, offset, length);
  payload_entry_release(entry);
}

// The first piece of a transfer says how large it is. If that was wrong the others never fit: after a silence, during
// which none did, another size may begin anew.
bool accepts_total(xfer_state &pull, uint32_t total) CONS_REQUIRES(pull.lock)
{
  if (pull.piece_map == nullptr || pull.total == total) {
    return true;
  }
  if (monotonic_us() - pull.data_us <= WRONG_SIZE_SILENCE_US) {
    return false;
  }
  std::free(pull.buffer);
  std::free(pull.piece_map);
  pull.buffer = nullptr;
  pull.piece_map = nullptr;
  return true;
}

bool begin_assembly(xfer_state &pull, uint32_t total) CONS_REQUIRES(pull.lock)
{
  const uint32_t pieces = total / DATA_PIECE_SIZE + (total % DATA_PIECE_SIZE != 0 ? 1 : 0);
  auto *buffer = static_cast<uint8_t *>(std::calloc(total, 1));
  auto *piece_map = static_cast<uint8_t *>(std::calloc(pieces, 1));
  if (buffer == nullptr || piece_map == nullptr) {
    std::free(buffer);
    std::free(piece_map);
    return false;
  }
  pull.buffer = buffer;
  pull.piece_map = piece_map;
  pull.total = total;
  pull.pieces = pieces;
  return true;
}

// What does not carry its own size was damaged, or encrypted with another pass phrase: it is fetched again.
void finish_assembly(xfer_state &pull) CONS_REQUIRES(pull.lock)
{
  const uint32_t id = pull.id;
  const uint8_t sender = pull.sender;
  if (uint64_t{payload_byte_count(pull.buffer)} + PAYLOAD_HEADER_SIZE == pull.total) {
    uint8_t *payload = pull.buffer;
    pull.buffer = nullptr;
    if (paxos_data_hash_entry(payload_entry_new(payload), id, sender)) {
      paxos_data_bcast_complete(id, sender);
      pull.changed_cond.broadcast();
    }
  }
  xfer_reset(pull);
}

// Somebody holds it: what was answered before says nothing about a loss.
void note_holder_answers(xfer_state &pull) CONS_REQUIRES(pull.lock)
{
  pull.data_us = monotonic_us();
  pull.activity_us = pull.data_us;
  pull.lost_us = 0;
  xfer_forget_answers(pull);
}

void paxos_data_recv_data(const data_header &hdr, const data_piece &piece)
{
  xfer_state &pull = paxos_data.pull_xfer;
  cons_lock lock(pull.lock);
  if (!xfer_is_for(pull, hdr.id, hdr.sender) || !accepts_total(pull, piece.total)) {
    return;
  }
  vx_log("CONS: PAXOS DATA: DATA (s=%u id=%u/%hhu, o=%u, l=%u)\n", hdr.from, hdr.id, hdr.sender, piece.offset,
         piece.length);
  gettimeofday(&pull.last, nullptr);
  note_holder_answers(pull);
  if (pull.piece_map == nullptr && !begin_assembly(pull, piece.total)) {
    return;
  }
  uint8_t &is_received = pull.piece_map[piece.offset / DATA_PIECE_SIZE];
  if (is_received == 0) {
    cons_crypt(pull.buffer + piece.offset, piece.bytes, piece.length, 0);
    is_received = 1;
  }
  if (std::memchr(pull.piece_map, 0, pull.pieces) == nullptr) {
    finish_assembly(pull);
  }
}

void unmark_node(const data_header &hdr)
{
  xfer_state &pull = paxos_data.pull_xfer;
  cons_lock lock(pull.lock);
  if (xfer_is_for(pull, hdr.id, hdr.sender) && hdr.from != 0) {
    pull.node_state[hdr.from - 1] = 0;
    pull.unanswered_requests = 0;
    pull.lost_us = 0;
  }
}

// Marks the answering node, if it says which, and wakes who waits for the answers.
void mark_node(xfer_state &record, const data_header &hdr, uint8_t mark)
{
  cons_lock lock(record.lock);
  if (!xfer_is_for(record, hdr.id, hdr.sender)) {
    return;
  }
  if (hdr.from != 0) {
    uint8_t &state = record.node_state[hdr.from - 1];
    if (state != mark) {
      record.marked_us[hdr.from - 1] = monotonic_us();
    }
    state = static_cast<uint8_t>(state | mark);
  }
  record.changed_cond.broadcast();
}

// Every field that is used as an index, a size or a key is in range. An id or a sender of 0 would equal a free record.
bool is_sound(const data_header &hdr)
{
  const bool may_be_anonymous = hdr.type == PAXOS_DATA_COMPLETE || hdr.type == PAXOS_DATA_MISSING;
  return hdr.id != 0 && is_node(hdr.sender) && (is_node(hdr.from) || (hdr.from == 0 && may_be_anonymous));
}

void note_holder(const data_header &hdr)
{
  cons_lock lock(paxos_data.pull_xfer.lock);
  paxos_data_note_holder(hdr.from, hdr.id, hdr.sender);
}

void dispatch(const data_header &hdr, std::span<const uint8_t> body)
{
  data_piece piece;
  switch (hdr.type) {
  case PAXOS_DATA_OFFER:
    paxos_data_recv_offer(hdr);
    break;
  case PAXOS_DATA_REQ:
    if (body.size() >= REQ_SIZE) {
      paxos_data_recv_req(hdr, body);
    }
    break;
  case PAXOS_DATA_DATA:
    if (parse_piece(body, piece)) {
      note_holder(hdr);
      paxos_data_recv_data(hdr, piece);
    }
    break;
  case PAXOS_DATA_COMPLETE:
    vx_log("CONS: PAXOS DATA: COMPLETE (s=%u id=%u/%u)\n", hdr.from, hdr.id, hdr.sender);
    mark_node(paxos_data.offer_xfer, hdr, XFER_NODE_HAS_IT);
    note_holder(hdr);
    unmark_node(hdr);
    break;
  case PAXOS_DATA_MISSING:
    vx_log("CONS: PAXOS DATA: MISSING (s=%u id=%u/%u)\n", hdr.from, hdr.id, hdr.sender);
    mark_node(paxos_data.pull_xfer, hdr, XFER_NODE_LACKS_IT);
    break;
  default:
    break;
  }
}

}  // namespace

void paxos_data_recv(void *msg)
{
  const hook_call call(paxos_data.recv_gate);
  if (!call.entered() || msg == nullptr) {
    return;
  }
  const received_message message(msg);
  const auto body = message.payload();
  if (!message.accepted() || body.size() < PAXOS_DATA_HDR_SIZE) {
    return;
  }
  const data_header hdr = {
      .type = get_le16(body.data()), .from = body[2], .sender = body[3], .id = get_le32(body.data() + 4)};
  if (hdr.from == cons_service.node_id) {
    return;
  }
  if (hdr.type > PAXOS_DATA_MISSING) {
    vx_log("CONS: PAXOS DATA: unknown message type %u\n", hdr.type);
    return;
  }
  if (is_sound(hdr)) {
    dispatch(hdr, body);
  }
}
