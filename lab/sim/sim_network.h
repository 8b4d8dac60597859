/// The way of datagrams between nodes: each takes a time of its own, and the seed may lose it, double it, hold it or
/// damage it.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "draw.h"
#include "scheduler.h"

namespace sim
{

inline constexpr uint32_t NODES_MAX = 16;
inline constexpr uint32_t FIRST_CHANNEL = 3;
inline constexpr uint32_t CHANNELS = 4;

/// What follows the first word of a message object: envelope and payload.
using datagram = std::shared_ptr<const std::vector<uint8_t>>;

/// As of the first byte of the envelope.
inline constexpr size_t ENVELOPE_BYTES = 20;

/// What a datagram of channels 3 to 5 is.
struct message_kind {
  uint32_t channel = 0;
  uint32_t type = 0;
  bool operator==(const message_kind &) const = default;
};
message_kind kind_of(uint32_t channel, const datagram &one);

inline constexpr message_kind READ_REQUEST{.channel = 3, .type = 0};
inline constexpr message_kind READ_ANSWER{.channel = 3, .type = 1};
inline constexpr message_kind WRITE_REQUEST{.channel = 3, .type = 3};
inline constexpr message_kind WRITE_ANSWER{.channel = 3, .type = 4};
inline constexpr message_kind DECISION{.channel = 4, .type = 0};
inline constexpr message_kind FORWARD{.channel = 4, .type = 1};
inline constexpr message_kind OFFER{.channel = 5, .type = 0};
inline constexpr message_kind COMPLETE{.channel = 5, .type = 3};

struct weather {
  double loss = 0;
  double twice = 0;
  double damage = 0;
  int64_t low_us = 20;
  int64_t high_us = 200;
};

class sim_network
{
public:
  using deliver = std::function<void(uint32_t to, uint32_t channel, const datagram &one)>;

  sim_network(uint64_t seed, scheduler &clock, uint32_t nodes, deliver to)
      : clock_(clock), draw_(seed, 2), nodes_(nodes), deliver_(std::move(to))
  {
  }

  /// `to` 0: all nodes, the sender included.
  void send(uint32_t from, uint32_t to, uint32_t channel, const datagram &one);

  /// Of one channel, or of all (0), in one direction, or in all (0).
  void set_weather(const weather &is, uint32_t channel, uint32_t from, uint32_t to);
  void cut(uint32_t from, uint32_t to, bool is_cut) { cut_[from][to] = is_cut; }
  /// Holds the next datagrams of a channel to a node until release(). They come late, all at once.
  void hold(uint32_t to, uint32_t channel, uint32_t count);
  void release();
  /// Delivers the last `count` forwarded messages once more, to all, each at a time of its own until then.
  void repeat_forwards(size_t count, int64_t within_us);
  /// No cut, no hold, no weather.
  void heal();

private:
  struct held_one {
    uint32_t to;
    uint32_t channel;
    datagram one;
  };

  void send_to(uint32_t from, uint32_t to, uint32_t channel, const datagram &one);
  void arrive(uint32_t to, uint32_t channel, const datagram &one, int64_t delay_us);
  datagram damaged(const datagram &one);

  scheduler &clock_;
  draw draw_;
  uint32_t nodes_;
  deliver deliver_;
  std::array<std::array<std::array<weather, NODES_MAX + 1>, NODES_MAX + 1>, CHANNELS> weather_{};
  std::array<std::array<bool, NODES_MAX + 1>, NODES_MAX + 1> cut_{};
  std::array<std::array<uint32_t, NODES_MAX + 1>, CHANNELS> holds_{};
  std::vector<held_one> held_;
  std::deque<datagram> forwards_;  // the last ones
};

}  // namespace sim
