#include "seal/sealing.h"

#include <cstring>
#include <utility>

namespace platform
{
namespace
{

opened dropped(drop_reason reason)
{
  return {.dropped = reason};
}

}  // namespace

void sealing::begin(uint32_t node, uint64_t session, const seal_keys &keys)
{
  node_ = node;
  session_ = session;
  {
    const lock_scope lock(out_lock_);
    counter_ = 0;
  }
  {
    const lock_scope lock(in_lock_);
    own_.number = session;
    own_.window.begin(0);
    for (peer &one : peers_) {
      one = peer();
    }
  }
  set_keys(keys);
}

// Receives with the new keys first: what this node sends comes back to it.
void sealing::set_keys(const seal_keys &keys)
{
  {
    const lock_scope lock(in_lock_);
    in_keys_ = keys;
    own_.by_key.clear();
    for (peer &one : peers_) {
      one.now.by_key.clear();
    }
  }
  const lock_scope lock(out_lock_);
  out_keys_ = keys;
  out_.clear();
  for (const auto &[id, key] : keys.known) {
    out_[id] = seal_cipher::derive(key, static_cast<uint8_t>(node_), session_);
  }
}

std::optional<uint8_t> sealing::seals_with()
{
  const lock_scope lock(out_lock_);
  return out_keys_.seals_with;
}

std::span<const uint8_t> sealing::seal(const message &one, std::span<uint8_t> room)
{
  const lock_scope lock(out_lock_);
  if (!out_keys_.seals_with) {
    return {one.object(), one.datagram_size()};
  }
  if (one.datagram_size() + SEAL_OVERHEAD > room.size()) {
    return {};
  }
  const sealed_head head{.sender = static_cast<uint8_t>(node_),
                         .channel = static_cast<uint8_t>(one.channel),
                         .is_to_group = one.destination == GROUP_ADDRESS,
                         .is_bulk = is_bulk(one.channel, one.key),
                         .key_id = *out_keys_.seals_with,
                         .session = session_,
                         .counter = ++counter_};
  seal_cipher *const cipher = out_[head.key_id].get();
  const bool done =
      cipher != nullptr && cipher->seal(head, one.destination, {one.object() + WORD_SIZE, one.data_size}, room.data());
  return done ? room.first(one.datagram_size() + SEAL_OVERHEAD) : std::span<uint8_t>();
}

std::vector<std::vector<uint8_t>> sealing::greetings()
{
  greeting told{};
  {
    const lock_scope lock(in_lock_);
    for (size_t i = 0; i < peers_.size(); ++i) {
      put_session(told.data() + i * SESSION_SIZE, peers_[i].heard);
    }
  }
  std::vector<std::vector<uint8_t>> made;
  const lock_scope lock(out_lock_);
  for (const auto &[id, cipher] : out_) {
    std::vector<uint8_t> bytes(SEAL_HEADER_SIZE + told.size() + SEAL_TAG_SIZE);
    const sealed_head head{.sender = static_cast<uint8_t>(node_),
                           .channel = 0,
                           .is_to_group = true,
                           .key_id = id,
                           .session = session_,
                           .counter = ++counter_};
    if (cipher && cipher->seal(head, GROUP_ADDRESS, told, bytes.data())) {
      made.push_back(std::move(bytes));
    }
  }
  return made;
}

bool sealing::accepts_plain()
{
  const lock_scope lock(in_lock_);
  return in_keys_.accepts_plain;
}

std::optional<uint8_t> sealing::key_of(uint32_t node)
{
  const lock_scope lock(in_lock_);
  const live_session &now = peers_[node - 1].now;
  return now.number != 0 ? std::optional(now.last_key) : std::nullopt;
}

uint32_t sealing::destination_of(const sealed_head &head) const
{
  return head.is_to_group ? GROUP_ADDRESS : node_name(node_);
}

seal_cipher *sealing::cipher_of(ciphers &among, const sealed_head &head)
{
  std::unique_ptr<seal_cipher> &cipher = among[head.key_id];
  if (!cipher) {
    cipher = seal_cipher::derive(in_keys_.known[head.key_id], head.sender, head.session);
  }
  return cipher.get();
}

opened sealing::open(std::span<const uint8_t> datagram, uint32_t node, uint32_t channel, uint8_t *to)
{
  const auto head = read_sealed_head(datagram);
  if (!head || channel != (head->channel != 0 ? head->channel : GREETING_PORT_CHANNEL)) {
    return dropped(drop_reason::damaged);
  }
  if (head->sender != node) {
    return dropped(drop_reason::stranger);
  }
  const lock_scope lock(in_lock_);
  if (!in_keys_.known.contains(head->key_id)) {
    return dropped(drop_reason::unknown_key);
  }
  if (head->sender == node_ && head->session == session_) {
    return open_known(own_, *head, datagram, to);
  }
  peer &from = peers_[head->sender - 1u];
  if (from.replaced.contains(head->session)) {
    return dropped(drop_reason::replayed);
  }
  if (head->channel == 0) {
    return open_greeting(from, *head, datagram);
  }
  return head->session == from.now.number ? open_known(from.now, *head, datagram, to)
                                          : dropped(drop_reason::unconfirmed);
}

opened sealing::open_known(live_session &of, const sealed_head &head, std::span<const uint8_t> datagram, uint8_t *to)
{
  if (!of.window.is_new(head.counter)) {
    return dropped(drop_reason::replayed);
  }
  seal_cipher *const cipher = cipher_of(of.by_key, head);
  if (cipher == nullptr || !cipher->open(datagram, destination_of(head), to)) {
    return dropped(drop_reason::forged);
  }
  of.window.mark(head.counter);
  of.last_key = head.key_id;
  return {.dropped = std::nullopt, .is_greeting = head.channel == 0, .is_bulk = head.is_bulk};
}

opened sealing::open_greeting(peer &from, const sealed_head &head, std::span<const uint8_t> datagram)
{
  greeting told;
  if (datagram.size() != SEAL_HEADER_SIZE + told.size() + SEAL_TAG_SIZE) {
    return dropped(drop_reason::damaged);
  }
  opened result;
  if (head.session == from.now.number) {
    result = open_known(from.now, head, datagram, told.data());
  } else {
    ciphers of_this;
    seal_cipher *const cipher = cipher_of(of_this, head);
    if (cipher == nullptr || !cipher->open(datagram, destination_of(head), told.data())) {
      return dropped(drop_reason::forged);
    }
    if (read_session(told.data() + (node_ - 1) * SESSION_SIZE) == session_) {
      if (from.now.number != 0) {
        from.replaced.insert(from.now.number);
      }
      from.now.number = head.session;
      from.now.window.begin(head.counter);
      from.now.by_key = std::move(of_this);
      from.now.last_key = head.key_id;
    }
  }
  result.is_greeting = true;
  result.wants_answer = !result.dropped && std::exchange(from.heard, head.session) != head.session;
  return result;
}

}  // namespace platform
