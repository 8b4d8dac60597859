#include "tag_index.h"

#include <algorithm>
#include <iterator>

#include "bytes.h"

namespace kesh
{

namespace
{

using range_map = std::map<uint64_t, uint64_t>;

/// Adds one sequence to the ranges; false if it was there.
bool add_sequence(range_map &ranges, uint64_t sequence)
{
  auto after = ranges.upper_bound(sequence);
  if (after != ranges.begin()) {
    auto before = std::prev(after);
    if (sequence <= before->second) {
      return false;
    }
    if (before->second == sequence - 1) {
      before->second = sequence;
      if (after != ranges.end() && after->first - 1 == sequence) {
        before->second = after->second;
        ranges.erase(after);
      }
      return true;
    }
  }
  uint64_t last = sequence;
  if (after != ranges.end() && after->first - 1 == sequence) {
    last = after->second;
    ranges.erase(after);
  }
  ranges.emplace(sequence, last);
  return true;
}

bool has_sequence(const range_map &ranges, uint64_t sequence)
{
  const auto after = ranges.upper_bound(sequence);
  return after != ranges.begin() && sequence <= std::prev(after)->second;
}

}  // namespace

tag_seen tag_index::note(const line_tag &tag, uint32_t attempt)
{
  life_lines &lines = origins_[{tag.origin, tag.life}];
  if (add_sequence(lines.ranges, tag.sequence)) {
    if (attempt != 1) {
      lines.attempts_seen[tag.sequence] = {attempt};
    }
    return tag_seen::first_time;
  }
  auto known = lines.attempts_seen.find(tag.sequence);
  if (known == lines.attempts_seen.end()) {
    if (attempt == 1) {
      return tag_seen::same_attempt;
    }
    lines.attempts_seen[tag.sequence] = {1, attempt};
    return tag_seen::other_attempt;
  }
  if (std::find(known->second.begin(), known->second.end(), attempt) != known->second.end()) {
    return tag_seen::same_attempt;
  }
  known->second.push_back(attempt);
  return tag_seen::other_attempt;
}

void tag_index::encode(std::string &to) const
{
  put_le(to, static_cast<uint32_t>(origins_.size()));
  for (const auto &[key, lines] : origins_) {
    put_le(to, key.first);
    put_le(to, key.second);
    put_le(to, static_cast<uint32_t>(lines.ranges.size()));
    for (const auto &[first, last] : lines.ranges) {
      put_le(to, first);
      put_le(to, last);
    }
    put_le(to, static_cast<uint32_t>(lines.attempts_seen.size()));
    for (const auto &[sequence, attempts] : lines.attempts_seen) {
      put_le(to, sequence);
      put_le(to, static_cast<uint32_t>(attempts.size()));
      for (const uint32_t attempt : attempts) {
        put_le(to, attempt);
      }
    }
  }
}

bool tag_index::decode_life(byte_reader &reader, life_lines &lines)
{
  const uint32_t ranges = reader.le<uint32_t>();
  for (uint32_t i = 0; i < ranges && reader.ok(); i++) {
    const uint64_t first = reader.le<uint64_t>();
    const uint64_t last = reader.le<uint64_t>();
    const uint64_t before = lines.ranges.empty() ? 0 : lines.ranges.rbegin()->second;
    if (first == 0 || last < first || first <= before || (before != 0 && first - 1 == before)) {
      return false;
    }
    lines.ranges.emplace(first, last);
  }
  const uint32_t entries = reader.le<uint32_t>();
  for (uint32_t i = 0; i < entries && reader.ok(); i++) {
    const uint64_t sequence = reader.le<uint64_t>();
    const uint32_t count = reader.le<uint32_t>();
    const bool is_next = lines.attempts_seen.empty() || sequence > lines.attempts_seen.rbegin()->first;
    if (count == 0 || !is_next || !has_sequence(lines.ranges, sequence)) {
      return false;
    }
    std::vector<uint32_t> &attempts = lines.attempts_seen[sequence];
    for (uint32_t j = 0; j < count && reader.ok(); j++) {
      attempts.push_back(reader.le<uint32_t>());
    }
  }
  return reader.ok();
}

bool tag_index::decode(std::string_view bytes)
{
  byte_reader reader(bytes);
  std::map<origin_key, life_lines> origins;
  const uint32_t count = reader.le<uint32_t>();
  for (uint32_t i = 0; i < count && reader.ok(); i++) {
    const uint8_t node = reader.le<uint8_t>();
    const uint64_t life = reader.le<uint64_t>();
    if (!origins.empty() && origin_key{node, life} <= origins.rbegin()->first) {
      return false;
    }
    if (!decode_life(reader, origins[{node, life}])) {
      return false;
    }
  }
  if (!reader.ok() || reader.left() != 0) {
    return false;
  }
  origins_ = std::move(origins);
  return true;
}

}  // namespace kesh
