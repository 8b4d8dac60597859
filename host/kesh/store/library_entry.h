/// The name of a payload in the library's records.
///
///   offset  width  field
///   0       1      sender   node, 1 to 16; 0 = none
///   1       4      msg_id   little-endian; 0 = none
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "bytes.h"

namespace kesh
{

inline constexpr size_t LIBRARY_ENTRY_SIZE = 1 + 4;

struct library_entry {
  uint8_t sender = 0;
  uint32_t msg_id = 0;

  bool operator==(const library_entry &) const = default;
  bool is_none() const { return sender == 0 || msg_id == 0; }
};

inline library_entry library_entry_get(byte_reader &from)
{
  library_entry entry;
  entry.sender = from.le<uint8_t>();
  entry.msg_id = from.le<uint32_t>();
  return entry;
}

inline library_entry library_entry_get(std::string_view bytes)
{
  byte_reader reader(bytes);
  return library_entry_get(reader);
}

inline std::string library_entry_bytes(const library_entry &entry)
{
  std::string bytes;
  put_le(bytes, entry.sender);
  put_le(bytes, entry.msg_id);
  return bytes;
}

}  // namespace kesh
