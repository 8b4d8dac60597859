/// Time in microseconds that steps of the wall clock do not affect.
#pragma once

#include <time.h>

#include <cstdint>

inline int64_t monotonic_us()
{
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}
