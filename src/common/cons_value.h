/// An owned byte string: the value of registers and of consensus proposals. Length 0 is the empty value.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

class cons_value
{
public:
  cons_value() = default;
  cons_value(const cons_value &) = delete;
  cons_value &operator=(const cons_value &) = delete;
  cons_value(cons_value &&other) noexcept { swap(other); }
  cons_value &operator=(cons_value &&other) noexcept
  {
    swap(other);
    return *this;
  }
  ~cons_value() { std::free(bytes_); }

  /// Replaces the value by a copy. Returns false, with the value unchanged, if memory runs out.
  [[nodiscard]] bool assign(std::span<const uint8_t> from)
  {
    uint8_t *copy = nullptr;
    if (!from.empty()) {
      copy = static_cast<uint8_t *>(std::malloc(from.size()));
      if (copy == nullptr) {
        return false;
      }
      std::memcpy(copy, from.data(), from.size());
    }
    std::free(bytes_);
    bytes_ = copy;
    length_ = static_cast<uint32_t>(from.size());
    return true;
  }
  void clear()
  {
    std::free(bytes_);
    bytes_ = nullptr;
    length_ = 0;
  }
  bool empty() const { return length_ == 0; }
  uint32_t length() const { return length_; }
  std::span<const uint8_t> bytes() const { return {bytes_, length_}; }
  void swap(cons_value &other) noexcept
  {
    std::swap(bytes_, other.bytes_);
    std::swap(length_, other.length_);
  }

private:
  uint8_t *bytes_ = nullptr;
  uint32_t length_ = 0;
};
