/// Messages of channel 3, behind the envelope. All fields 32 bits, little-endian.
///
///   type  name        payload
///   0     READ_REQ    type, register id, round
///   1     READ_ACK    type, register id, round, write round, L, L bytes of value
///   2     READ_NACK   type, register id, round
///   3     WRITE_REQ   type, register id, round, L, L bytes of value
///   4     WRITE_ACK   type, register id, round
///   5     WRITE_NACK  type, register id, round
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

enum rb_reg_type : uint32_t { READ_REQ, READ_ACK, READ_NACK, WRITE_REQ, WRITE_ACK, WRITE_NACK, RB_REG_TYPES };

inline constexpr size_t RB_REG_HEADER_SIZE = 12;
inline constexpr size_t READ_ACK_HEADER_SIZE = 20;
inline constexpr size_t WRITE_REQ_HEADER_SIZE = 16;

struct rb_reg_message {
  uint32_t type = 0;
  uint32_t id = 0;
  uint32_t round = 0;
  uint32_t write_round = 0;             ///< READ_ACK
  std::span<const uint8_t> value = {};  ///< READ_ACK, WRITE_REQ
};

/// Returns nothing if the payload is too short for its fields or its value.
std::optional<rb_reg_message> rb_reg_parse(std::span<const uint8_t> payload);

/// Returns the envelope of a new message, or null if memory runs out.
uint8_t *rb_reg_message_new(const rb_reg_message &message);
