/// Nodes of a cluster within the test: messaging services on 127.1.0.n, and hooks that record.
#pragma once

#include "messaging.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <vector>

using namespace platform;

constexpr auto PATIENCE = std::chrono::seconds(10);

/// A message whose payload is `size` bytes (4 at least), the tag in front.
inline message_ptr tagged(uint32_t tag, size_t size = 4)
{
  message_ptr made = message_new(ENVELOPE_SIZE + size);
  uint8_t *data = made->object() + WORD_SIZE;
  memset(data, 0, ENVELOPE_SIZE + size);
  const auto length = static_cast<uint32_t>(size);
  memcpy(data + 16, &length, sizeof length);
  memcpy(data + ENVELOPE_SIZE, &tag, sizeof tag);
  return made;
}

/// What a hook got. Hooks have no context, so each recorder<N> is one hook; reset it at the start of a test.
struct record {
  std::mutex lock;
  std::condition_variable grown;
  std::vector<uint32_t> tags;
  std::map<uint32_t, size_t> counts;
  std::function<void(uint32_t tag)> then;  // runs in the hook, with nothing held
  int inside = 0;

  void add(void *msg)
  {
    uint32_t tag = 0;
    memcpy(&tag, static_cast<uint8_t *>(msg) + WORD_SIZE + ENVELOPE_SIZE, sizeof tag);
    std::function<void(uint32_t)> next;
    {
      const std::lock_guard held(lock);
      EXPECT_EQ(++inside, 1) << "a hook runs twice at once";
      tags.push_back(tag);
      ++counts[tag];
      next = then;
    }
    grown.notify_all();
    if (next) {
      next(tag);
    }
    const std::lock_guard held(lock);
    --inside;
  }
  template <typename Predicate>
  bool await(Predicate reached)
  {
    std::unique_lock held(lock);
    return grown.wait_for(held, PATIENCE, [&] { return reached(*this); });
  }
  bool await_tag(uint32_t tag, size_t count = 1)
  {
    return await([=](record &r) { return r.counts[tag] >= count; });
  }
  size_t size()
  {
    const std::lock_guard held(lock);
    return tags.size();
  }
  size_t count_of(uint32_t tag)
  {
    const std::lock_guard held(lock);
    return counts[tag];
  }
};

template <int N>
struct recorder {
  static inline record got;
  static void hook(void *msg) { got.add(msg); }
  static record &reset(std::function<void(uint32_t)> then = nullptr)
  {
    const std::lock_guard held(got.lock);
    got.tags.clear();
    got.counts.clear();
    got.then = std::move(then);
    return got;
  }
};

struct test_node : messaging {
  explicit test_node(uint32_t node_id, uint32_t receive_buffer = 8 << 20) : test_node(node_id, {}, receive_buffer) {}
  test_node(uint32_t node_id, const seal_keys &keys, uint32_t receive_buffer = 8 << 20, bool is_multicast = true)
      : test_node(node_id, with(keys, receive_buffer, is_multicast))
  {
  }
  test_node(uint32_t node_id, const messaging_settings &as) : settings(as)
  {
    settings.node_id = node_id;
    settings.interval_ms = 1;
    std::string error;
    if (!start(settings, error)) {
      throw std::runtime_error(error);
    }
  }
  ~test_node() { stop(); }
  uint64_t dropped(drop_reason reason) { return statistics().dropped[static_cast<size_t>(reason)]; }

  messaging_settings settings;

private:
  static messaging_settings with(const seal_keys &keys, uint32_t receive_buffer, bool is_multicast)
  {
    messaging_settings made;
    made.keys = keys;
    made.receive_buffer = receive_buffer;
    made.is_multicast = is_multicast;
    return made;
  }
};
