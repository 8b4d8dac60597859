/// Cluster messages: what `kesh say` sends to every node, and the last messages heard here.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "guarded.h"

namespace kesh
{

/// A cluster message of this daemon: "KS1", u8 sending node, text. It is one datagram, so the text is short.
inline constexpr size_t SAY_TEXT_MAX = 1024;
std::string say_message_encode(uint8_t node, std::string_view text);
bool say_message_decode(std::string_view bytes, uint8_t &node, std::string_view &text);

struct heard_message {
  uint64_t number = 0;  ///< from 1, since the start of the daemon
  int64_t time_s = 0;   ///< since 1970
  uint8_t node = 0;
  std::string text;
};

/// The last 1000 messages. Any thread.
class heard
{
public:
  static constexpr size_t KEEP = 1000;

  void add(uint8_t node, std::string_view text) PLATFORM_EXCLUDES(lock_);
  /// Those kept with a number above `after`.
  std::vector<heard_message> after(uint64_t number) PLATFORM_EXCLUDES(lock_);
  /// Waits until there is a message above `number`, at most `length`, or until end_waits().
  void wait_after(uint64_t number, std::chrono::milliseconds length) PLATFORM_EXCLUDES(lock_);
  uint64_t count() PLATFORM_EXCLUDES(lock_);
  /// Ends all waits, and those to come.
  void end_waits() PLATFORM_EXCLUDES(lock_);

private:
  platform::mutex lock_;
  platform::condition added_;
  std::deque<heard_message> messages_ PLATFORM_GUARDED_BY(lock_);
  uint64_t count_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool is_ending_ PLATFORM_GUARDED_BY(lock_) = false;
};

}  // namespace kesh
