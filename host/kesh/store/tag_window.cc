#include "store/tag_window.h"

#include <algorithm>

#include "bytes.h"

namespace kesh
{

void window_payload::sort()
{
  std::stable_sort(tags.begin(), tags.end(), [](const tag &a, const tag &b) { return a.sequence < b.sequence; });
}

std::string window_payload::pack() const
{
  std::string bytes;
  bytes.reserve(tags.size() * 16);
  for (const tag &one : tags) {
    put_le(bytes, one.sequence);
    put_le(bytes, one.line);
  }
  return bytes;
}

bool window_payload::unpack(std::string_view bytes)
{
  byte_reader reader(bytes);
  tags.clear();
  tags.reserve(bytes.size() / 16);
  while (reader.left() != 0 && reader.ok()) {
    tag one;
    one.sequence = reader.le<uint64_t>();
    one.line = reader.le<uint64_t>();
    tags.push_back(one);
  }
  sort();
  return reader.ok();
}

std::optional<uint64_t> tag_window::find(uint8_t origin, uint64_t life, uint64_t sequence) const
{
  const auto &payloads = of(origin);
  for (auto one = payloads.rbegin(); one != payloads.rend(); ++one) {
    if (one->life != life) {
      continue;
    }
    const auto at =
        std::lower_bound(one->tags.begin(), one->tags.end(), sequence,
                         [](const window_payload::tag &tag, uint64_t value) { return tag.sequence < value; });
    if (at != one->tags.end() && at->sequence == sequence) {
      return at->line;
    }
  }
  return std::nullopt;
}

uint64_t tag_window::add(uint8_t origin, window_payload newest)
{
  auto &payloads = origins_[origin - 1u];
  payloads.push_back(std::move(newest));
  if (payloads.size() <= PAYLOADS_PER_ORIGIN) {
    return 0;
  }
  const uint64_t out = payloads.front().n;
  payloads.erase(payloads.begin());
  return out;
}

}  // namespace kesh
