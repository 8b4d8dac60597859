#include "cluster/vote_filter.h"

#include "bytes.h"

namespace kesh
{

namespace
{
constexpr uint32_t VOTES = 3;
constexpr uint32_t PAYLOADS = 5;
constexpr uint16_t MISSING = 4;
}  // namespace

void vote_filter::hold_missing(const message_ids &up_to)
{
  for (size_t i = 0; i < up_to.size(); ++i) {
    held_[i].store(up_to[i], std::memory_order_relaxed);
  }
}

/// Whether it is a MISSING that must not pass. One that is cut proves nothing.
bool vote_filter::holds(const platform::message_view &one) const
{
  byte_reader reader({reinterpret_cast<const char *>(one.payload.data()), one.payload.size()});
  const auto type = reader.le<uint16_t>();
  reader.le<uint8_t>();
  const auto submitter = reader.le<uint8_t>();
  const auto id = reader.le<uint32_t>();
  if (one.channel != PAYLOADS || !reader.ok() || type != MISSING) {
    return false;
  }
  const bool is_known = submitter >= 1 && submitter <= held_.size();
  return !passes_.load(std::memory_order_relaxed) ||
         (is_known && id <= held_[submitter - 1u].load(std::memory_order_relaxed));
}

bool vote_filter::lets_in(const platform::message_view &one) noexcept
{
  if (one.channel == VOTES) {
    watch_.note(one);
    return passes_.load(std::memory_order_relaxed);
  }
  return !holds(one);
}

bool vote_filter::lets_out(const platform::message_view &one) noexcept
{
  // A question counts before this node has answered it itself: the answer of another node may be counted earlier.
  if (one.channel == VOTES) {
    watch_.note(one);
  }
  return !holds(one);
}

}  // namespace kesh
