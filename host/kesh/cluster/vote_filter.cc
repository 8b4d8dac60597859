#include "cluster/vote_filter.h"

namespace kesh
{

namespace
{
constexpr uint32_t VOTES = 3;
constexpr uint32_t PAYLOADS = 5;
constexpr uint8_t MISSING = 4;
}  // namespace

bool vote_filter::lets_in(const platform::message_view &one) noexcept
{
  if (one.channel != VOTES) {
    return true;
  }
  watch_.note(one);
  return passes_.load(std::memory_order_relaxed);
}

bool vote_filter::lets_out(const platform::message_view &one) noexcept
{
  const bool is_missing =
      one.channel == PAYLOADS && one.payload.size() >= 2 && one.payload[0] == MISSING && one.payload[1] == 0;
  return !is_missing || passes_.load(std::memory_order_relaxed);
}

}  // namespace kesh
