/// The connection between a node and a broker: a Unix socket of type SOCK_SEQPACKET, one frame per packet.
///
///   offset  width  field
///   0       1      kind
///   1       1      node
///   2       2      number, little-endian
///   4       n      content
///
///   kind           from     node                            number   content
///   'H' hello      node     its id, 1 to 16; sent first     1        -
///   'D' datagram   node     to: 1 to 16, 0 = the group      0        the datagram
///   'D' datagram   broker   from: 1 to 16                   0        the datagram
///   'M' mark       node     0                               ticket   its kind, text
///   'G' go ahead   broker   0                               ticket   -
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace platform
{

enum class frame_kind : uint8_t { hello = 'H', datagram = 'D', mark = 'M', go_ahead = 'G' };

inline constexpr size_t FRAME_HEADER_SIZE = 1 + 1 + 2;
inline constexpr uint16_t FRAME_VERSION = 1;
using frame_header = std::array<uint8_t, FRAME_HEADER_SIZE>;

constexpr frame_header make_frame_header(frame_kind kind, uint32_t node, uint16_t number)
{
  return {static_cast<uint8_t>(kind), static_cast<uint8_t>(node), static_cast<uint8_t>(number & 0xff),
          static_cast<uint8_t>(number >> 8)};
}

constexpr uint16_t frame_number(const frame_header &header)
{
  return static_cast<uint16_t>(header[2] | header[3] << 8);
}

}  // namespace platform
