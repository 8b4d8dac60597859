/// Messages of channel 5, behind the envelope; all go to every node. Little-endian.
///
///   offset  width  field
///   0       2      type    0 OFFER, 1 REQ, 2 DATA, 3 COMPLETE, 4 MISSING
///   2       1      from    node that sent this message
///   3       1      sender  node that submitted the payload
///   4       4      id      its message id, never 0
/// REQ
///   8       4      offset  first byte wanted
///   12      4      length  bytes wanted; 0xFFFFFFFF = up to the end
/// DATA
///   8       4      offset  of the piece within the payload, a multiple of 1400
///   12      4      total   size of the whole payload
///   16      4      n       1 to 1400
///   20      n      the piece, encrypted
#pragma once

#include <cstddef>
#include <cstdint>

#include "payload_dissemination/payload_buf.h"

enum paxos_data_type : uint16_t {
  PAXOS_DATA_OFFER,
  PAXOS_DATA_REQ,
  PAXOS_DATA_DATA,
  PAXOS_DATA_COMPLETE,
  PAXOS_DATA_MISSING
};

inline constexpr uint32_t PAXOS_DATA_HDR_SIZE = 8;
inline constexpr uint32_t REQ_SIZE = 16;
inline constexpr uint32_t DATA_HEADER_SIZE = 20;

/// Largest piece in one DATA message, and the unit of the piece map. In bytes.
inline constexpr uint32_t DATA_PIECE_SIZE = 1400;
inline constexpr uint32_t REQ_TO_THE_END = 0xffffffff;

/// Keys of queued OFFERs: one for the calls of vx_cons_distribute, one for a new snapshot, so that each can be
/// withdrawn without the other.
inline constexpr uint32_t OFFER_KEY = PAXOS_DATA_OFFER;
inline constexpr uint32_t STATE_OFFER_KEY = 5;

/// Each logs and sends one message (DATA: one per piece, until the layer stops), or nothing if memory runs out. OFFER
/// is repeated until it is dequeued with the returned handle. False or null means that nothing was queued.
void *paxos_data_bcast_offer(uint32_t id, uint8_t sender, uint32_t key);
bool paxos_data_bcast_req(uint32_t id, uint8_t sender, uint32_t offset, uint32_t length);
void paxos_data_send_data(uint32_t id, uint8_t sender, const payload_buf *payload, uint32_t offset, uint32_t length);
void paxos_data_bcast_complete(uint32_t id, uint8_t sender);
void paxos_data_bcast_missing(uint32_t id, uint8_t sender);

/// Receive hook of channel 5.
void paxos_data_recv(void *msg);
