#include "message.h"

#include <cstdlib>
#include <new>

namespace platform
{

static_assert(sizeof(message) % 16 == 0, "the object behind it is aligned like it");

message_ptr message_new(size_t data_size) noexcept
{
  void *memory = malloc(sizeof(message) + WORD_SIZE + data_size);
  if (memory == nullptr) {
    return nullptr;
  }
  message_ptr made(new (memory) message);
  made->data_size = data_size;
  return made;
}

void message_free::operator()(message *gone) const noexcept
{
  free(gone);
}

void write_word(message &to, uint32_t channel, bool is_bulk)
{
  uint8_t *word = to.object();
  word[0] = 'V';
  word[1] = 'X';
  word[2] = is_bulk ? 1 : 0;
  word[3] = static_cast<uint8_t>(channel);
}

datagram_check check_datagram(const uint8_t *bytes, size_t size, uint32_t channel)
{
  if (size < WORD_SIZE || bytes[0] != 'V' || bytes[1] != 'X' || bytes[2] > 1) {
    return datagram_check::foreign;
  }
  if (bytes[3] != channel || size < WORD_SIZE + ENVELOPE_SIZE) {
    return datagram_check::damaged;
  }
  const uint8_t *length = bytes + WORD_SIZE + 16;
  const uint64_t payload_size =
      length[0] | uint64_t{length[1]} << 8 | uint64_t{length[2]} << 16 | uint64_t{length[3]} << 24;
  if (payload_size != size - WORD_SIZE - ENVELOPE_SIZE) {
    return datagram_check::damaged;
  }
  return bytes[2] == 1 ? datagram_check::bulk : datagram_check::good;
}

void message_list::push_back(message_ptr added)
{
  message *last = added.release();
  ++count_;
  bytes_ += sizeof(message) + last->datagram_size();
  (last_ == nullptr ? first_ : last_->next) = last;
  last_ = last;
}

message_ptr message_list::pop_front()
{
  message_ptr front(first_);
  if (front) {
    first_ = std::exchange(front->next, nullptr);
    if (first_ == nullptr) {
      last_ = nullptr;
    }
    --count_;
    bytes_ -= sizeof(message) + front->datagram_size();
  }
  return front;
}

void message_list::prepend(message_list &others)
{
  if (others.empty()) {
    return;
  }
  others.last_->next = first_;
  if (last_ == nullptr) {
    last_ = others.last_;
  }
  first_ = others.first_;
  count_ += others.count_;
  bytes_ += others.bytes_;
  others.first_ = others.last_ = nullptr;
  others.count_ = others.bytes_ = 0;
}

void message_list::clear()
{
  while (!empty()) {
    pop_front();
  }
}

}  // namespace platform
