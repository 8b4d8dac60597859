/// States of the data types that carry no real data: a byte pattern that shows whether it arrived as it was sent.
#pragma once

#include <cstdint>
#include <string_view>

namespace kesh
{

/// `size` bytes from malloc, which the caller frees; null without memory. Another type or size gives other bytes.
uint8_t *pattern_state_make(uint32_t type, uint32_t size);

/// True if pattern_state_make gives these bytes for this type and size.
bool pattern_state_matches(uint32_t type, std::string_view bytes);

}  // namespace kesh
