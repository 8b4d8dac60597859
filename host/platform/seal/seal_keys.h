/// The key file: which keys this node sends with, and which it takes.
///
///     # a comment
///     seal 2 KEY       what this node sends with, and takes too; exactly one line says seal
///     accept 1 KEY     what it takes as well
///     accept plain     it takes what is not sealed; "seal plain": it sends so
///
/// An identifier is 1 to 255, a key 64 hexadecimal digits. Nobody but the owner may read the file.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace platform
{

inline constexpr size_t SEAL_KEY_SIZE = 32;
using seal_key = std::array<uint8_t, SEAL_KEY_SIZE>;

/// As it is made: without any key, as without a key file.
struct seal_keys {
  std::map<uint8_t, seal_key> known;  ///< by identifier, the one to seal with included
  std::optional<uint8_t> seals_with;  ///< unset: plain
  bool accepts_plain = true;

  bool operator==(const seal_keys &) const = default;
};

/// On failure returns false, and `error` says what is wrong, behind `name` and the line. No part of a key is in it.
bool seal_keys_parse(std::string_view text, const std::string &name, seal_keys &to, std::string &error);
/// Refuses a file that is no regular one, or that others may read.
bool seal_keys_load(const std::string &path, seal_keys &to, std::string &error);
/// A new key at random, as it stands in a file. Empty if the kernel gives no random bytes.
std::string seal_key_generate();

}  // namespace platform
