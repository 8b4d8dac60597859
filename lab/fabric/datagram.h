/// What travels through the fabric, and what it is to the cluster.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace fabric
{

inline constexpr uint32_t NODES_MAX = 16;
inline constexpr uint32_t CHANNELS_MAX = 7;

enum class message_type : uint8_t {
  other,
  arp,
  ip,
  vrrp,
  read_req,
  read_ack,
  read_nack,
  write_req,
  write_ack,
  write_nack,
  decide,
  decide_update,
  forward,
  offer,
  req,
  data,
  complete,
  missing,
  clmsg,
  hello,
  count
};
/// Upper case with underscores, as rules and statistics name it.
std::string_view type_name(message_type type);
std::optional<message_type> type_of_name(std::string_view name);

/// A decision, as far as the fabric looks into it.
struct decide_view {
  uint32_t number = 0;
  uint32_t count = 0;  // entries in the log
  std::span<const uint8_t> log;
  uint32_t first_sender = 0;
  uint32_t first_id = 0;
};

struct datagram_info {
  message_type type = message_type::other;
  uint32_t channel = 0;            // 3 to 7; 0: no message of the cluster
  std::optional<uint32_t> number;  // of the DECIDE, or register id on channel 3
};

struct datagram {
  explicit datagram(std::span<const uint8_t> content) : bytes(content.begin(), content.end()) {}

  std::vector<uint8_t> bytes;
  datagram_info info;
  size_t message_offset = 0;  // where the messaging service's datagram begins
  std::span<const uint8_t> message() const { return std::span(bytes).subspan(message_offset); }
};
using datagram_ptr = std::shared_ptr<const datagram>;

/// An Ethernet frame, which may carry a datagram of the messaging service. Whatever it holds, it becomes something, if
/// need be `other`.
datagram_ptr make_frame(std::span<const uint8_t> bytes);

/// What a datagram of type decide or decide_update says.
decide_view view_decide(const datagram &one);

}  // namespace fabric
