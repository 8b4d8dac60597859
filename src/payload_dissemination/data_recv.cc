#include <span>

#include "payload_dissemination/data_messages.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/loss_watch.h"
#include "payload_dissemination/payload_files.h"
#include "payload_dissemination/payload_table.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

struct data_header {
  uint16_t type;
  uint8_t from;
  uint8_t sender;
  uint32_t id;
  [[nodiscard]] id_entry entry() const { return {.sender = sender, .msg_id = id}; }
};

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

// With durable payloads a node holds a payload only once it is on disk. Hold no lock. If the save fails, the next OFFER
// tries again.
void complete_if_durable(const data_header &hdr)
{
  if (payload_files_make_durable(hdr.entry())) {
    paxos_data_bcast_complete(hdr.id, hdr.sender);
  }
}

void paxos_data_recv_offer(const data_header &hdr)
{
  vx_log("CONS: PAXOS DATA: OFFER (s=%u, id=%u/%u)\n", hdr.from, hdr.id, hdr.sender);
  if (paxos_data.offers_heard.is_new(hdr.from, hdr.id)) {
    paxos_data_losses->heard(hdr.from);
  }
  if (paxos_data_has_entry(hdr.id, hdr.sender) != 0) {
    complete_if_durable(hdr);
    return;
  }
  cons_lock lock(paxos_data.pull.lock);
  if (pull_record_claim_for_offer(paxos_data.pull, hdr.entry())) {
    pull_record_request(paxos_data.pull);
  }
}

void paxos_data_recv_req(const data_header &hdr, std::span<const uint8_t> body)
{
  paxos_data_losses->heard(hdr.from);
  const uint32_t offset = get_le32(body.data() + 8);
  const uint32_t length = get_le32(body.data() + 12);
  vx_log("CONS: PAXOS DATA: REQ (s=%u id=%u/%u, o=%u, l=%u)\n", hdr.from, hdr.id, hdr.sender, offset, length);
  payload_entry *entry = paxos_data_get_entry(hdr.id, hdr.sender);
  if (entry == nullptr && payload_table_knows(hdr.entry())) {
    return;  // the file cannot be read, but this node held the payload: it must not say that it lacks it
  }
  if (entry == nullptr) {
    paxos_data.callbacks.lacking(hdr.id, hdr.sender, hdr.from);
    paxos_data_bcast_missing(hdr.id, hdr.sender);
    return;
  }
  paxos_data_send_data(hdr.id, hdr.sender, entry->payload, offset, length);
  payload_entry_release(entry);
}

void paxos_data_recv_data(const data_header &hdr, const data_piece &piece)
{
  paxos_data_losses->holds(hdr.from, hdr.entry());
  pull_record &pull = paxos_data.pull;
  {
    cons_lock lock(pull.lock);
    if (!pull_record_accepts(pull, hdr.entry(), piece)) {
      return;
    }
    vx_log("CONS: PAXOS DATA: DATA (s=%u id=%u/%hhu, o=%u, l=%u)\n", hdr.from, hdr.id, hdr.sender, piece.offset,
           piece.length);
    payload_buf *payload = pull_record_add(pull, piece);
    if (payload == nullptr || !paxos_data_hash_entry(payload_entry_new(payload), hdr.id, hdr.sender)) {
      return;
    }
    pull.changed_cond.broadcast();
  }
  complete_if_durable(hdr);
}

void paxos_data_recv_complete(const data_header &hdr)
{
  vx_log("CONS: PAXOS DATA: COMPLETE (s=%u id=%u/%u)\n", hdr.from, hdr.id, hdr.sender);
  paxos_data_losses->holds(hdr.from, hdr.entry());
  offer_record_complete(paxos_data.offer, hdr.entry(), hdr.from);
  offer_record_complete(paxos_data.state_offer, hdr.entry(), hdr.from);
}

void paxos_data_recv_missing(const data_header &hdr)
{
  vx_log("CONS: PAXOS DATA: MISSING (s=%u id=%u/%u)\n", hdr.from, hdr.id, hdr.sender);
  if (paxos_data_losses->lacks(hdr.from, hdr.entry())) {
    paxos_data.pull.changed_cond.wake_all(paxos_data.pull.lock);
  }
}

// Whether every field that is used as an index, a size or a key is in range. An id or a sender of 0 would match a free
// record.
bool is_sound(const data_header &hdr)
{
  const bool may_be_anonymous = hdr.type == PAXOS_DATA_COMPLETE || hdr.type == PAXOS_DATA_MISSING;
  return id_entry_valid(hdr.entry()) && hdr.from <= NODES_MAX && (hdr.from != 0 || may_be_anonymous);
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
      paxos_data_recv_data(hdr, piece);
    }
    break;
  case PAXOS_DATA_COMPLETE:
    paxos_data_recv_complete(hdr);
    break;
  case PAXOS_DATA_MISSING:
    paxos_data_recv_missing(hdr);
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
