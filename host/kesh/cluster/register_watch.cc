#include "cluster/register_watch.h"

#include "bytes.h"

namespace kesh
{

namespace
{
constexpr uint32_t CHANNEL = 3;
// By type, without the value.
constexpr size_t SIZE_MIN[] = {12, 20, 12, 16, 12, 12};
}  // namespace

void register_watch::note(const platform::message_view &one) noexcept
{
  if (one.channel != CHANNEL || one.cluster_id != cluster_id_ || one.build != build_) {
    return;
  }
  byte_reader reader({reinterpret_cast<const char *>(one.payload.data()), one.payload.size()});
  const auto type = reader.le<uint32_t>();
  const auto id = reader.le<uint32_t>();
  if (!reader.ok() || type >= std::size(SIZE_MIN) || one.payload.size() < SIZE_MIN[type]) {
    return;
  }
  uint32_t before = greatest();
  while (id > before && !greatest_.compare_exchange_weak(before, id, std::memory_order_relaxed)) {
  }
}

}  // namespace kesh
