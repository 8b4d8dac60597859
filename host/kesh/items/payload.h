/// What this host puts into a payload of the library: items, the work of one node.
///
///   offset  width  content, little-endian
///   0       4      magic "KPL2"
///   4       1      origin: the node that made it, 1 to 16
///   5       8      life of that node's daemon: time of its start, ns since 1970
///   13      4      number of items, at least 1
///   17      ...    items, the last of which ends with the payload
///
/// An item:
///   0       1      kind
///   1       8      sequence, from 1 in each life
///   9       4      attempt, from 1
///   13      4      length n
///   17      n      bytes
///
/// Origin, life, sequence and attempt are the item's tag: who asked for it, and the how-manieth try this is.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kesh
{

/// All payloads have this type of the library.
inline constexpr uint32_t DATA_TYPE = 0;
inline constexpr uint8_t ORIGIN_MAX = 16;
inline constexpr size_t PAYLOAD_HEADER_SIZE = 4 + 1 + 8 + 4;
inline constexpr size_t ITEM_HEADER_SIZE = 1 + 8 + 4 + 4;

enum class item_kind : uint8_t {
  line = 1,   ///< a line of the journal
  no_op = 2,  ///< only takes a place in the order; no bytes
};

struct item {
  item_kind kind = item_kind::line;
  uint64_t sequence = 0;
  uint32_t attempt = 0;
  std::string_view bytes;  ///< of the payload, in a decoded item

  bool operator==(const item &) const = default;
};

struct payload {
  uint8_t origin = 0;
  uint64_t life = 0;
  std::vector<item> items;
};

/// The size of the payload that payload_encode would give.
size_t payload_size(const payload &from);
std::string payload_encode(const payload &from);

/// Append what stands in front of the items, and in front of one item's bytes.
void put_payload_head(std::string &to, uint8_t origin, uint64_t life, uint32_t items);
void put_item_head(std::string &to, const item &one);

/// Checks all of `bytes` before it hands out anything; the items point into `bytes`. On failure returns false and
/// `fault` says what is wrong, and where. Such a payload must not be passed over: another build may understand it, and
/// then the nodes would differ.
bool payload_decode(std::string_view bytes, payload &to, std::string &fault);

}  // namespace kesh
