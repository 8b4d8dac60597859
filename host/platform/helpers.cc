// The small helpers of vx_host.h, and the build number.
#include "vx_host.h"

#include <cerrno>
#include <cstdlib>

extern "C" const uint32_t vx_firmware_dova_build_nr = VX_BUILD_NR;

unsigned long long vx_strtoull(const char *text, int base, int, int, int)
{
  const int saved_errno = errno;
  char *end = nullptr;
  const unsigned long long number = text == nullptr ? 0 : strtoull(text, &end, base);
  errno = saved_errno;
  return number;
}

int64_t timeval_diff_usec(const struct timeval *later, const struct timeval *earlier)
{
  return (int64_t{later->tv_sec} - earlier->tv_sec) * 1'000'000 + (later->tv_usec - earlier->tv_usec);
}
