/// Little-endian integers in byte strings: appended one after another, read back with every length checked.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kesh
{

template <typename number>
void put_le(std::string &to, number value)
{
  for (size_t i = 0; i < sizeof value; i++) {
    to.push_back(static_cast<char>(static_cast<uint64_t>(value) >> (8 * i) & 0xff));
  }
}

/// Reads from the front. A read beyond the end gives 0 (or no bytes) and makes ok() false for good.
class byte_reader
{
public:
  explicit byte_reader(std::string_view bytes) : left_(bytes) {}

  template <typename number>
  number le()
  {
    const std::string_view from = bytes(sizeof(number));
    uint64_t value = 0;
    for (size_t i = 0; i < from.size(); i++) {
      value |= static_cast<uint64_t>(static_cast<uint8_t>(from[i])) << (8 * i);
    }
    return static_cast<number>(value);
  }

  std::string_view bytes(uint64_t size)
  {
    if (!ok_ || size > left_.size()) {
      ok_ = false;
      return {};
    }
    const std::string_view result = left_.substr(0, size);
    left_.remove_prefix(size);
    return result;
  }

  bool ok() const { return ok_; }
  size_t left() const { return left_.size(); }

private:
  std::string_view left_;
  bool ok_ = true;
};

}  // namespace kesh
