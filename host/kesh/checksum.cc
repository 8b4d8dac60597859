#include "checksum.h"

#include <zlib.h>

namespace kesh
{

uint32_t crc32_of(std::string_view bytes)
{
  return static_cast<uint32_t>(crc32_z(0, reinterpret_cast<const Bytef *>(bytes.data()), bytes.size()));
}

uint64_t hash_continue(uint64_t hash, std::string_view bytes)
{
  constexpr uint64_t FNV_PRIME = 0x100000001b3u;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<uint8_t>(byte)) * FNV_PRIME;
  }
  return hash;
}

}  // namespace kesh
