/// States of data types that carry nothing real: bytes of a pattern that tells whether they arrived as they were sent.
#pragma once

#include <cstdint>
#include <string_view>

namespace kesh
{

/// `size` bytes from malloc, for their taker to free; null without memory. Another type or size gives other bytes.
uint8_t *pattern_state_make(uint32_t type, uint32_t size);

/// True if the bytes are what pattern_state_make gives for the type and their number.
bool pattern_state_matches(uint32_t type, std::string_view bytes);

}  // namespace kesh
