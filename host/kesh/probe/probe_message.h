/// What nodes send each other for "kesh probe", on channel 7 beside the hellos. A node that does not know it takes it
/// for a hello that cannot be read.
///
///   offset  width  content, little-endian
///   0       3      'V' 'X' 'P'
///   3       1      version, 1
///   4       1      1 = ask, 2 = answer
///   5       1      node that asks
///   6       2      zeros
///   8       4      session: drawn at random for each run of the command
///   12      4      number of the ask in its session
///   16      4      size of the ask, from here at offset 0 to its end
///   20             an ask: zeros up to its size; an answer: nothing
///
/// An answer goes to the node that asked, and repeats what it was asked. So none is longer than what it answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesh
{

inline constexpr uint32_t PROBE_SIZE = 20;

enum class probe_kind : uint8_t { ask = 1, answer = 2 };

struct probe_message {
  probe_kind kind = probe_kind::ask;
  uint8_t asker = 0;  ///< 1 to 16
  uint32_t session = 0;
  uint32_t number = 0;
  uint32_t size = PROBE_SIZE;  ///< of the ask, at least PROBE_SIZE

  bool operator==(const probe_message &) const = default;
};

/// Whether it is one, of any version: then it is no hello.
bool is_probe(std::string_view bytes);
std::string probe_encode(const probe_message &from);
/// Nothing if anything is missing, out of range or of another version.
std::optional<probe_message> probe_decode(std::string_view bytes);

}  // namespace kesh
