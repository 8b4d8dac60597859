/// How often "kesh probe" asks a node by each way.
#pragma once

#include <cstdint>

namespace kesh
{

inline constexpr uint32_t PROBE_COUNT_DEFAULT = 20;
inline constexpr uint32_t PROBE_COUNT_MAX = 1000;  // ten seconds

}  // namespace kesh
