/// Little-endian words, and a hash for comparing values.
#pragma once

#include <cstdint>
#include <string_view>

namespace sim
{

inline uint32_t get_u32(const uint8_t *from)
{
  return from[0] | uint32_t{from[1]} << 8 | uint32_t{from[2]} << 16 | uint32_t{from[3]} << 24;
}

/// FNV-1a.
inline uint64_t hash_of(std::string_view bytes)
{
  uint64_t hash = 0xcbf29ce484222325;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  }
  return hash;
}

}  // namespace sim
