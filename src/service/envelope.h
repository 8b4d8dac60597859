/// The 20 bytes in front of every payload, and the channels and destinations of the messaging service.
///
/// Message object: 4 bytes of the messaging service, then
///   offset  width  field (little-endian)
///   0       4      cluster id, low word
///   4       4      cluster id, high word
///   8       4      build number
///   12      4      sender address, its four bytes in network order
///   16      4      payload length
///   20      n      payload
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t MSG_WORD_SIZE = 4;
inline constexpr uint32_t ENVELOPE_SIZE = 20;

inline constexpr uint32_t RB_REG_CHANNEL = 3;
inline constexpr uint32_t PAXOS_CHANNEL = 4;
inline constexpr uint32_t PAXOS_DATA_CHANNEL = 5;
inline constexpr uint32_t CLMSG_CHANNEL = 6;

/// 224.0.0.81 as held in memory: all nodes, the sender included.
inline constexpr uint32_t CONS_MCAST_ADDR = 0x510000e0;
inline constexpr uint32_t MSG_KEY_ALL = 0xffffffff;

/// Returns the envelope of a new message, with this node's identity in it and `length` payload bytes behind it. They
/// are copied from `payload`, or left for the caller to fill if that is null. Returns null if memory runs out.
uint8_t *cons_msg_new(const uint8_t *payload, uint32_t length);

/// The payload of a message that cons_msg_new returned.
inline uint8_t *cons_msg_payload(uint8_t *envelope)
{
  return envelope + ENVELOPE_SIZE;
}

/// Hands a message that cons_msg_new returned to the messaging service. Returns its handle.
void *cons_msg_send(uint8_t *envelope, uint32_t channel, uint32_t msg_key, uint32_t destination, int32_t repeat,
                    uint32_t interval);

/// A message object as a receive hook gets it. Valid during the call only.
class received_message
{
public:
  explicit received_message(const void *msg) : envelope_(static_cast<const uint8_t *>(msg) + MSG_WORD_SIZE) {}

  /// Whether it has this node's cluster id and build number. The sender address is not checked.
  bool accepted() const;
  uint32_t sender_addr() const;
  std::span<const uint8_t> payload() const;

private:
  const uint8_t *envelope_;
};
