#include "sim_network.h"

#include <algorithm>
#include <utility>

#include "common/le_bytes.h"

namespace sim
{

namespace
{

constexpr size_t FORWARDS_KEPT = 64;

}  // namespace

message_kind kind_of(uint32_t channel, const datagram &one)
{
  const uint8_t *const payload = one->data() + ENVELOPE_BYTES;
  const size_t size = one->size() - ENVELOPE_BYTES;
  if (size < 4) {
    return {};
  }
  return {.channel = channel, .type = channel == 5 ? uint32_t{get_le16(payload)} : get_le32(payload)};
}

void sim_network::send(uint32_t from, uint32_t to, uint32_t channel, const datagram &one)
{
  if (kind_of(channel, one) == FORWARD && std::find(forwards_.begin(), forwards_.end(), one) == forwards_.end()) {
    forwards_.push_back(one);
    if (forwards_.size() > FORWARDS_KEPT) {
      forwards_.pop_front();
    }
  }
  if (to != 0) {
    send_to(from, to, channel, one);
    return;
  }
  for (uint32_t node = 1; node <= nodes_; ++node) {
    send_to(from, node, channel, one);
  }
}

void sim_network::send_to(uint32_t from, uint32_t to, uint32_t channel, const datagram &one)
{
  if (to > nodes_ || cut_[from][to]) {
    return;
  }
  const weather &is = weather_[channel - FIRST_CHANNEL][from][to];
  const bool is_own = from == to;  // the kernel's loopback loses nothing
  if (!is_own && is.loss > 0 && draw_.chance(is.loss)) {
    return;
  }
  uint32_t &holds = holds_[channel - FIRST_CHANNEL][to];
  if (!is_own && holds > 0) {
    --holds;
    held_.push_back({to, channel, one});
    return;
  }
  const bool is_damaged = !is_own && is.damage > 0 && draw_.chance(is.damage);
  arrive(to, channel, is_damaged ? damaged(one) : one, draw_.between(is.low_us, is.high_us));
  if (!is_own && is.twice > 0 && draw_.chance(is.twice)) {
    arrive(to, channel, one, draw_.spread(is.high_us, is.high_us * 20));
  }
}

void sim_network::arrive(uint32_t to, uint32_t channel, const datagram &one, int64_t delay_us)
{
  clock_.at(clock_.now_us() + delay_us, [this, to, channel, one] { deliver_(to, channel, one); });
}

// Shortened, longer, or with other bytes; never with an envelope that tells another length than there is, since the
// host drops those.
datagram sim_network::damaged(const datagram &one)
{
  auto bytes = std::make_shared<std::vector<uint8_t>>(*one);
  const size_t payload = bytes->size() - ENVELOPE_BYTES;
  if (draw_.once_in(2)) {
    bytes->resize(ENVELOPE_BYTES + draw_.below(payload + 8));
    put_le32(bytes->data() + 16, static_cast<uint32_t>(bytes->size() - ENVELOPE_BYTES));
  } else {
    // A foreign cluster or build: its content means nothing here.
    (*bytes)[draw_.below(12)] ^= static_cast<uint8_t>(1 + draw_.below(255));
  }
  return bytes;
}

void sim_network::set_weather(const weather &is, uint32_t channel, uint32_t from, uint32_t to)
{
  for (uint32_t c = 0; c < CHANNELS; ++c) {
    for (uint32_t f = 1; f <= nodes_; ++f) {
      for (uint32_t t = 1; t <= nodes_; ++t) {
        if ((channel == 0 || channel == c + FIRST_CHANNEL) && (from == 0 || from == f) && (to == 0 || to == t)) {
          weather_[c][f][t] = is;
        }
      }
    }
  }
}

void sim_network::hold(uint32_t to, uint32_t channel, uint32_t count)
{
  holds_[channel - FIRST_CHANNEL][to] = count;
}

void sim_network::release()
{
  holds_ = {};
  for (const held_one &late : std::exchange(held_, {})) {
    arrive(late.to, late.channel, late.one, 1);
  }
}

void sim_network::repeat_forwards(size_t count, int64_t within_us)
{
  for (size_t i = forwards_.size() - std::min(count, forwards_.size()); i < forwards_.size(); ++i) {
    for (uint32_t node = 1; node <= nodes_; ++node) {
      arrive(node, FORWARD.channel, forwards_[i], draw_.between(1, within_us));
    }
  }
}

void sim_network::heal()
{
  weather_ = {};
  cut_ = {};
  release();
}

}  // namespace sim
