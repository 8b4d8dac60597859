#include "daemon/heard.h"

#include <chrono>
#include <ctime>

namespace kesh
{

using platform::lock_scope;

namespace
{

constexpr std::string_view MAGIC = "KS1";

}  // namespace

std::string say_message_encode(uint8_t node, std::string_view text)
{
  std::string bytes(MAGIC);
  bytes += static_cast<char>(node);
  bytes += text;
  return bytes;
}

bool say_message_decode(std::string_view bytes, uint8_t &node, std::string_view &text)
{
  if (bytes.size() <= MAGIC.size() || bytes.substr(0, MAGIC.size()) != MAGIC) {
    return false;
  }
  node = static_cast<uint8_t>(bytes[MAGIC.size()]);
  text = bytes.substr(MAGIC.size() + 1);
  return true;
}

void heard::add(uint8_t node, std::string_view text)
{
  lock_scope scope(lock_);
  messages_.push_back({++count_, time(nullptr), node, std::string(text)});
  if (messages_.size() > KEEP) {
    messages_.pop_front();
  }
  added_.signal_all();
}

std::vector<heard_message> heard::after(uint64_t number)
{
  lock_scope scope(lock_);
  std::vector<heard_message> result;
  for (const heard_message &message : messages_) {
    if (message.number > number) {
      result.push_back(message);
    }
  }
  return result;
}

void heard::wait_after(uint64_t number, std::chrono::milliseconds length)
{
  const auto deadline = std::chrono::steady_clock::now() + length;
  lock_scope scope(lock_);
  while (count_ <= number && !is_ending_ && added_.wait_until(lock_, deadline)) {
  }
}

void heard::end_waits()
{
  lock_scope scope(lock_);
  is_ending_ = true;
  added_.signal_all();
}

uint64_t heard::count()
{
  lock_scope scope(lock_);
  return count_;
}

}  // namespace kesh
