/// A message inside the service: our own fields, then the object that the library uses and that travels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace platform
{

/// A datagram is the object of vx_host.h, unchanged:
///
///   offset  width  content
///   0       2      magic, 'V' 'X'
///   2       1      1 = bulk, 0 = anything else
///   3       1      channel, 3 to 7
///   4       16     envelope: cluster id, build number, sender address
///   20      4      envelope: payload length n, little-endian
///   24      n      payload
inline constexpr size_t WORD_SIZE = 4;
inline constexpr size_t ENVELOPE_SIZE = 20;
/// Largest UDP payload over IPv4.
inline constexpr size_t DATAGRAM_MAX = 65507;

/// Channels 3 to 6 are the library's, 7 is the host's own.
inline constexpr uint32_t CHANNEL_FIRST = 3;
inline constexpr uint32_t LIBRARY_CHANNEL_LAST = 6;
inline constexpr uint32_t CHANNEL_COUNT = 5;

/// Pieces of payloads: channel 5, key 2. They come in thousands, so they are paced, and everything else overtakes them.
constexpr bool is_bulk(uint32_t channel, uint32_t key)
{
  return channel == 5 && key == 2;
}

/// Messages of channel 7 with this key leave as one IP packet or not at all: what shows how long a packet may be.
inline constexpr uint32_t UNFRAGMENTED_KEY = 1;
constexpr bool is_unfragmented(uint32_t channel, uint32_t key)
{
  return channel == 7 && key == UNFRAGMENTED_KEY;
}

/// A piece of 1400 bytes with its 20-byte header must fit into one Ethernet frame.
inline constexpr size_t PIECE_DATAGRAM_MAX = WORD_SIZE + ENVELOPE_SIZE + 20 + 1400;
static_assert(PIECE_DATAGRAM_MAX + 20 + 8 <= 1500, "IP and UDP headers and the largest piece exceed the MTU");

struct alignas(16) message {
  message *next = nullptr;
  uint64_t id = 0;
  int64_t due_us = 0;    // next repetition, steady clock
  size_t data_size = 0;  // bytes behind the word
  uint32_t channel = 0;
  uint32_t key = 0;
  uint32_t destination = 0;  // as the library gave it, network order
  uint32_t interval = 0;
  int32_t repeat = 0;  // repetitions left, -1 without end

  uint8_t *object() { return reinterpret_cast<uint8_t *>(this + 1); }
  const uint8_t *object() const { return reinterpret_cast<const uint8_t *>(this + 1); }
  size_t datagram_size() const { return WORD_SIZE + data_size; }
};

struct message_free {
  void operator()(message *gone) const noexcept;
};
using message_ptr = std::unique_ptr<message, message_free>;

/// Null if there is no memory.
message_ptr message_new(size_t data_size) noexcept;
inline message *message_of(void *object)
{
  return reinterpret_cast<message *>(object) - 1;
}

void write_word(message &to, uint32_t channel, bool is_bulk);

enum class datagram_check { good, bulk, foreign, damaged };
/// Judges `size` received bytes, which may be anything, as a message of the channel. good and bulk are handed over.
datagram_check check_datagram(const uint8_t *bytes, size_t size, uint32_t channel);

/// First in, first out; owns its messages and needs no memory for itself.
class message_list
{
public:
  message_list() = default;
  ~message_list() { clear(); }
  message_list(const message_list &) = delete;
  message_list &operator=(const message_list &) = delete;

  bool empty() const { return first_ == nullptr; }
  size_t count() const { return count_; }
  /// Memory that the messages take.
  size_t bytes() const { return bytes_; }
  message *first() { return first_; }

  void push_back(message_ptr added);
  message_ptr pop_front();
  /// Puts all of `others` in front, in their order.
  void prepend(message_list &others);
  void clear();

  /// Releases every message that `matches`.
  template <typename Predicate>
  void remove_if(Predicate matches)
  {
    message *rest = std::exchange(first_, nullptr);
    last_ = nullptr;
    count_ = bytes_ = 0;
    while (rest != nullptr) {
      message_ptr one(rest);
      rest = std::exchange(one->next, nullptr);
      if (!matches(*one)) {
        push_back(std::move(one));
      }
    }
  }

private:
  message *first_ = nullptr;
  message *last_ = nullptr;
  size_t count_ = 0;
  size_t bytes_ = 0;
};

}  // namespace platform
