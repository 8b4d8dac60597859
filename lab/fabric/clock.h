/// The one clock of the fabric: CLOCK_MONOTONIC, which all processes of a machine share.
#pragma once

#include <cstdint>
#include <ctime>

namespace fabric
{

inline constexpr int64_t MS_NS = 1'000'000;
inline constexpr int64_t SECOND_NS = 1'000 * MS_NS;
inline constexpr int64_t NEVER_NS = INT64_MAX;

inline int64_t now_ns()
{
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * SECOND_NS + now.tv_nsec;
}

}  // namespace fabric
