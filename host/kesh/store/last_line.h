/// The end of the journal, in a form that two nodes can compare: equal pairs, equal journals.
#pragma once

#include <cstdint>
#include <string>

#include "items/chain_hash.h"

namespace kesh
{

struct journal_end {
  uint64_t lines = 0;
  /// 16 hexadecimal digits: the first 12 of H(n) of the payload that holds the last line, 4 of the item's position in
  /// it. NO_LINE_KEY without a line.
  std::string key;
};

inline constexpr char NO_LINE_KEY[] = "cbf29ce484222325";

std::string line_key(const chain_hash &hash, uint64_t position);

}  // namespace kesh
