#include "datagram.h"

#include "message.h"

#include <algorithm>

namespace fabric
{
namespace
{

using bytes_view = std::span<const uint8_t>;

constexpr std::array<std::string_view, static_cast<size_t>(message_type::count)> NAMES = {
    "OTHER",     "ARP",       "IP",         "VRRP",    "READ_REQ",      "READ_ACK", "READ_NACK",
    "WRITE_REQ", "WRITE_ACK", "WRITE_NACK", "DECIDE",  "DECIDE_UPDATE", "FORWARD",  "OFFER",
    "REQ",       "DATA",      "COMPLETE",   "MISSING", "CLMSG",         "HELLO"};

// Offsets in a datagram of the messaging service; the message of the library follows word and envelope.
constexpr size_t CHANNEL_OFFSET = 3;
constexpr size_t PAYLOAD_OFFSET = platform::WORD_SIZE + platform::ENVELOPE_SIZE;
constexpr size_t NUMBER_OFFSET = PAYLOAD_OFFSET + 4;
constexpr size_t LOG_OFFSET = NUMBER_OFFSET + 4 + 5;
constexpr size_t LOG_SIZE = 1254;

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr size_t UDP_HEADER_SIZE = 8;
constexpr uint16_t ETHERTYPE_IPV4 = 0x0800;
constexpr uint16_t ETHERTYPE_ARP = 0x0806;
constexpr uint8_t PROTOCOL_UDP = 17;
constexpr uint8_t PROTOCOL_VRRP = 112;

uint16_t be16(bytes_view bytes, size_t offset)
{
  return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}
uint32_t le32(bytes_view bytes, size_t offset)
{
  return bytes[offset] | uint32_t{bytes[offset + 1]} << 8 | uint32_t{bytes[offset + 2]} << 16 |
         uint32_t{bytes[offset + 3]} << 24;
}

/// The type with that number on the channel whose first type is `first`.
message_type type_at(message_type first, uint32_t number, uint32_t count)
{
  return number < count ? static_cast<message_type>(static_cast<uint32_t>(first) + number) : message_type::other;
}

bool is_message(bytes_view bytes)
{
  return bytes.size() >= PAYLOAD_OFFSET + 2 && bytes[0] == 'V' && bytes[1] == 'X' &&
         bytes[CHANNEL_OFFSET] >= platform::CHANNEL_FIRST && bytes[CHANNEL_OFFSET] <= CHANNELS_MAX;
}

datagram_info read_message(bytes_view bytes, bool is_to_group)
{
  datagram_info info;
  if (!is_message(bytes)) {
    return info;
  }
  info.channel = bytes[CHANNEL_OFFSET];
  const bool has_words = bytes.size() >= NUMBER_OFFSET + 4;
  const uint32_t type = has_words ? le32(bytes, PAYLOAD_OFFSET) : UINT32_MAX;
  switch (info.channel) {
  case 3:
    info.type = type_at(message_type::read_req, type, 6);
    if (has_words) {
      info.number = le32(bytes, NUMBER_OFFSET);
    }
    break;
  case 4:
    if (type == 0 && bytes.size() >= LOG_OFFSET + LOG_SIZE) {
      info.type = is_to_group ? message_type::decide : message_type::decide_update;
      info.number = le32(bytes, NUMBER_OFFSET);
    } else if (type == 1) {
      info.type = message_type::forward;
    }
    break;
  case 5:
    info.type = type_at(message_type::offer, bytes[PAYLOAD_OFFSET] | uint32_t{bytes[PAYLOAD_OFFSET + 1]} << 8, 5);
    break;
  case 6:
    info.type = message_type::clmsg;
    break;
  default:
    info.type = message_type::hello;
  }
  return info;
}

/// Offset of what a UDP datagram, not a later fragment, carries; 0: there is none.
size_t udp_content(bytes_view bytes)
{
  const size_t header_size = size_t{bytes[ETHERNET_HEADER_SIZE] & 0xfU} * 4;
  const size_t content = ETHERNET_HEADER_SIZE + header_size + UDP_HEADER_SIZE;
  const bool is_first = (be16(bytes, ETHERNET_HEADER_SIZE + 6) & 0x1fff) == 0;
  return is_first && header_size >= 20 && bytes.size() > content ? content : 0;
}

}  // namespace

std::string_view type_name(message_type type)
{
  return NAMES[static_cast<size_t>(type)];
}

std::optional<message_type> type_of_name(std::string_view name)
{
  const auto found = std::find(NAMES.begin(), NAMES.end(), name);
  if (found == NAMES.end()) {
    return std::nullopt;
  }
  return static_cast<message_type>(found - NAMES.begin());
}

datagram_ptr make_frame(bytes_view bytes)
{
  auto made = std::make_shared<datagram>(bytes);
  if (bytes.size() < ETHERNET_HEADER_SIZE) {
    return made;
  }
  const uint16_t ethertype = be16(bytes, 12);
  if (ethertype == ETHERTYPE_ARP) {
    made->info.type = message_type::arp;
  } else if (ethertype == ETHERTYPE_IPV4 && bytes.size() >= ETHERNET_HEADER_SIZE + 20) {
    const uint8_t protocol = bytes[ETHERNET_HEADER_SIZE + 9];
    const size_t content = protocol == PROTOCOL_UDP ? udp_content(bytes) : 0;
    if (content != 0 && is_message(bytes.subspan(content))) {
      const bool is_to_group = (bytes[0] & 1) != 0;
      made->info = read_message(bytes.subspan(content), is_to_group);
      made->message_offset = content;
    } else {
      made->info.type = protocol == PROTOCOL_VRRP ? message_type::vrrp : message_type::ip;
    }
  }
  return made;
}

decide_view view_decide(const datagram &one)
{
  const bytes_view bytes = one.message();
  decide_view view;
  view.number = le32(bytes, NUMBER_OFFSET);
  view.count = le32(bytes, LOG_OFFSET);
  view.log = bytes.subspan(LOG_OFFSET, LOG_SIZE);
  view.first_sender = view.log[4];
  view.first_id = le32(view.log, 5);
  return view;
}

}  // namespace fabric
