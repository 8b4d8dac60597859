#include "daemon/pattern_state.h"

#include <cstdlib>

namespace kesh
{

namespace
{

/// The high byte of a multiplicative sequence. It has no short period, so swapped pieces are noticed.
uint8_t pattern_byte(uint32_t type, uint32_t size, uint32_t offset)
{
  constexpr uint32_t MULTIPLIER = 2654435761u;
  return static_cast<uint8_t>(((offset + 1) * MULTIPLIER + size * 40503u + type) >> 24);
}

}  // namespace

uint8_t *pattern_state_make(uint32_t type, uint32_t size)
{
  auto *bytes = static_cast<uint8_t *>(malloc(size));
  for (uint32_t i = 0; bytes != nullptr && i < size; i++) {
    bytes[i] = pattern_byte(type, size, i);
  }
  return bytes;
}

bool pattern_state_matches(uint32_t type, std::string_view bytes)
{
  const auto size = static_cast<uint32_t>(bytes.size());
  for (uint32_t i = 0; i < size; i++) {
    if (static_cast<uint8_t>(bytes[i]) != pattern_byte(type, size, i)) {
      return false;
    }
  }
  return true;
}

}  // namespace kesh
