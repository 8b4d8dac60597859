/// The two sums of the journal: CRC-32 guards single records, the running hash guards the order of all lines.
#pragma once

#include <cstdint>
#include <string_view>

namespace kesh
{

uint32_t crc32_of(std::string_view bytes);

/// FNV-1a over 64 bits, continued from `hash`.
inline constexpr uint64_t HASH_START = 0xcbf29ce484222325u;
uint64_t hash_continue(uint64_t hash, std::string_view bytes);

}  // namespace kesh
