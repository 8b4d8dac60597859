/// Little-endian integers at any address. The caller has checked that the bytes are there.
#pragma once

#include <cstdint>

inline uint16_t get_le16(const uint8_t *from)
{
  return static_cast<uint16_t>(from[0] | from[1] << 8);
}

inline uint32_t get_le32(const uint8_t *from)
{
  return static_cast<uint32_t>(from[0]) | static_cast<uint32_t>(from[1]) << 8 | static_cast<uint32_t>(from[2]) << 16 |
         static_cast<uint32_t>(from[3]) << 24;
}

inline uint64_t get_le64(const uint8_t *from)
{
  return uint64_t{get_le32(from + 4)} << 32 | get_le32(from);
}

inline void put_le16(uint8_t *to, uint16_t value)
{
  to[0] = static_cast<uint8_t>(value);
  to[1] = static_cast<uint8_t>(value >> 8);
}

inline void put_le32(uint8_t *to, uint32_t value)
{
  to[0] = static_cast<uint8_t>(value);
  to[1] = static_cast<uint8_t>(value >> 8);
  to[2] = static_cast<uint8_t>(value >> 16);
  to[3] = static_cast<uint8_t>(value >> 24);
}

inline void put_le64(uint8_t *to, uint64_t value)
{
  put_le32(to, static_cast<uint32_t>(value));
  put_le32(to + 4, static_cast<uint32_t>(value >> 32));
}
