#include "common/save_times.h"

#include <atomic>

#include "common/monotonic_clock.h"

namespace
{

struct counted_saves {
  std::atomic<uint64_t> count;
  std::atomic<uint64_t> us;
};

counted_saves saves[VX_CONS_SAVE_KINDS];

}  // namespace

save_timer::save_timer(uint32_t kind) : kind_(kind), begun_us_(monotonic_us()) {}

save_timer::~save_timer()
{
  saves[kind_].us += static_cast<uint64_t>(monotonic_us() - begun_us_);
  saves[kind_].count++;
}

vx_cons_saves save_times_of(uint32_t kind)
{
  if (kind >= VX_CONS_SAVE_KINDS) {
    return {};
  }
  return {.count = saves[kind].count, .microseconds = saves[kind].us};
}
