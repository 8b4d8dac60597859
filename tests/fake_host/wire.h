/// The messages and files of the protocol, built and taken apart without the library's own codecs, so that a mistake
/// there does not cancel out here. Payloads only; fake_host.h puts the envelope in front.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace wire
{

using bytes = std::vector<uint8_t>;

/// (sender, msg_id)
using entry = std::pair<uint8_t, uint32_t>;
using log = std::vector<entry>;

enum reg_type : uint32_t { READ_REQ, READ_ACK, READ_NACK, WRITE_REQ, WRITE_ACK, WRITE_NACK };
enum data_type : uint16_t { OFFER, REQ, DATA, COMPLETE, MISSING };
inline constexpr uint32_t DECIDE = 0;
inline constexpr uint32_t FORWARD = 1;
inline constexpr uint32_t ALL = 0xffffffff;
inline constexpr uint32_t PIECE = 1400;

/// 32-bit words, little-endian.
bytes words(std::initializer_list<uint32_t> values);
bytes operator+(bytes left, const bytes &right);
bytes text(const std::string &characters);
uint32_t word_at(const bytes &from, size_t offset);

bytes entry_bytes(entry e);
entry entry_at(const bytes &from, size_t offset);
bytes log_bytes(const log &entries);  ///< 1254 bytes
log log_at(const bytes &from, size_t offset);

bytes reg(reg_type type, uint32_t id, uint32_t round);
bytes read_ack(uint32_t id, uint32_t round, uint32_t write_round, const bytes &value);
bytes write_req(uint32_t id, uint32_t round, const bytes &value);

bytes decide(uint32_t number, const log &entries);
bytes forward(entry e);

bytes data_header(uint32_t type, uint32_t from, entry payload);
bytes req(uint32_t from, entry payload, uint32_t offset, uint32_t length);
/// One piece as it stands in the message, that is encrypted.
bytes data(uint32_t from, entry payload, uint32_t offset, uint32_t total, const bytes &piece);

using record = std::pair<uint32_t, bytes>;  ///< data type, bytes
bytes payload(uint32_t full_state, const std::vector<record> &records);
/// A full state with these bytes as type 0 and nothing for the others.
bytes state_payload(const std::string &state);
/// With the marks of durable payloads: the decision that begins its log, and one node's highest identifier before it.
bytes durable_state_payload(const std::string &state, uint32_t number, entry done);

bytes clmsg(uint32_t type, uint32_t length, const bytes &data);

}  // namespace wire
