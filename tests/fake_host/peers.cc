#include "peers.h"

#include <algorithm>

#include "payload_dissemination/cons_crypt.h"

namespace fake
{

namespace
{

constexpr size_t LOG_MAX = 250;
constexpr size_t DATA_HEADER = 20;

bytes crypt(const bytes &input, int encrypt)
{
  bytes output(input.size());
  cons_crypt(output.data(), input.data(), static_cast<uint32_t>(input.size()), encrypt);
  return output;
}

}  // namespace

peers::peers(uint32_t own, uint32_t node_count)
{
  for (uint32_t id = 1; id <= node_count; ++id) {
    if (id != own) {
      nodes_[id];
    }
  }
  set_receiver([this](const sent_message &message) { receive(message); });
}

peers::~peers()
{
  set_receiver(nullptr);
}

void peers::set_votes(bool is_on)
{
  const std::lock_guard lock(lock_);
  votes_ = is_on;
}

void peers::set_fetches(bool is_on)
{
  const std::lock_guard lock(lock_);
  fetches_ = is_on;
}

void peers::set_serves(bool is_on)
{
  const std::lock_guard lock(lock_);
  serves_ = is_on;
}

void peers::lead(uint32_t id)
{
  const std::lock_guard lock(lock_);
  leader_ = id;
}

void peers::set_state(const std::string &state)
{
  const std::lock_guard lock(lock_);
  state_ = state;
}

void peers::begin_log()
{
  const wire::entry state = {static_cast<uint8_t>(leader_), ++nodes_[leader_].last_id};
  nodes_[leader_].payloads[state] = wire::state_payload(state_);
  entries_ = {state};
  ++number_;
}

void peers::order(const wire::log &entries)
{
  {
    const std::lock_guard lock(lock_);
    for (const wire::entry &e : entries) {
      if (entries_.empty() || entries_.size() == LOG_MAX) {
        begin_log();
      }
      entries_.push_back(e);
      ++number_;
      ordered_[e.first] = std::max(ordered_[e.first], e.second);
    }
    if (entries.empty()) {
      begin_log();
    }
  }
  announce(leader_);
}

wire::entry peers::submit(uint32_t id, const bytes &payload, bool is_offered)
{
  wire::entry e;
  {
    const std::lock_guard lock(lock_);
    e = {static_cast<uint8_t>(id), ++nodes_.at(id).last_id};
    for (auto &[other, n] : nodes_) {
      if (other == id || is_offered) {
        n.payloads[e] = payload;
      }
    }
  }
  if (is_offered) {
    inject(5, id, wire::data_header(wire::OFFER, id, e));
  }
  return e;
}

void peers::hold_payload(uint32_t id, wire::entry e, const bytes &payload)
{
  const std::lock_guard lock(lock_);
  nodes_.at(id).payloads[e] = payload;
}

void peers::forget_payload(wire::entry e)
{
  const std::lock_guard lock(lock_);
  for (auto &[id, n] : nodes_) {
    n.payloads.erase(e);
  }
}

uint32_t peers::number() const
{
  const std::lock_guard lock(lock_);
  return number_;
}

wire::log peers::entries() const
{
  const std::lock_guard lock(lock_);
  return entries_;
}

void peers::adopt(uint32_t number, const wire::log &entries)
{
  const std::lock_guard lock(lock_);
  number_ = number;
  entries_ = entries;
}

void peers::announce(uint32_t from)
{
  bytes message;
  {
    const std::lock_guard lock(lock_);
    message = wire::decide(number_, entries_);
  }
  inject(4, from, message);
}

bool peers::have(wire::entry e) const
{
  const std::lock_guard lock(lock_);
  return std::all_of(nodes_.begin(), nodes_.end(), [&](const auto &n) { return n.second.payloads.contains(e); });
}

bytes peers::payload_of(uint32_t id, wire::entry e) const
{
  const std::lock_guard lock(lock_);
  const auto &payloads = nodes_.at(id).payloads;
  const auto it = payloads.find(e);
  return it != payloads.end() ? it->second : bytes();
}

void peers::set_register(uint32_t id, uint32_t reg, uint32_t read_round, uint32_t write_round, const bytes &value)
{
  const std::lock_guard lock(lock_);
  nodes_.at(id).registers[reg] = {read_round, write_round, value};
}

void peers::receive(const sent_message &message)
{
  const std::lock_guard lock(lock_);
  if (message.channel == 3) {
    receive_register(message);
  } else if (message.channel == 4) {
    receive_paxos(message);
  } else if (message.channel == 5) {
    receive_data(message);
  }
}

// Requests are handed on once each, so that a round seen again is refused: nobody here needs repetitions.
void peers::receive_register(const sent_message &message)
{
  const bytes &body = message.payload;
  const uint32_t type = message.type();
  const uint32_t id = wire::word_at(body, 4);
  const uint32_t round = wire::word_at(body, 8);
  if (!votes_ || (type != wire::READ_REQ && type != wire::WRITE_REQ) || id <= number_) {
    return;
  }
  for (auto &[node_id, n] : nodes_) {
    acceptor &reg = n.registers[id];
    if (type == wire::READ_REQ && round > reg.read_round && round > reg.write_round) {
      reg.read_round = round;
      inject(3, node_id, wire::read_ack(id, round, reg.write_round, reg.value));
    } else if (type == wire::READ_REQ) {
      inject(3, node_id, wire::reg(wire::READ_NACK, id, round));
    } else if (round >= reg.read_round && round >= reg.write_round) {
      reg.write_round = round;
      reg.value.assign(body.begin() + 16, body.end());
      inject(3, node_id, wire::reg(wire::WRITE_ACK, id, round));
    } else {
      inject(3, node_id, wire::reg(wire::WRITE_NACK, id, round));
    }
  }
}

void peers::receive_paxos(const sent_message &message)
{
  const bytes &body = message.payload;
  if (message.type() == wire::DECIDE) {
    const uint32_t number = wire::word_at(body, 4);
    if (number > number_) {
      number_ = number;
      entries_ = wire::log_at(body, 13);
    } else if (number < number_) {
      inject(4, nodes_.begin()->first, wire::decide(number_, entries_));
    }
    return;
  }
  const wire::entry e = wire::entry_at(body, 4);
  if (leader_ == 0 || e.second <= ordered_[e.first]) {
    return;
  }
  if (entries_.empty() || entries_.size() == LOG_MAX) {
    begin_log();
  }
  entries_.push_back(e);
  ++number_;
  ordered_[e.first] = e.second;
  inject(4, leader_, wire::decide(number_, entries_));
}

void peers::receive_data(const sent_message &message)
{
  const bytes &body = message.payload;
  const wire::entry e = {body[3], wire::word_at(body, 4)};
  for (auto &[id, n] : nodes_) {
    if (message.type() == wire::OFFER && fetches_) {
      if (n.payloads.contains(e)) {
        inject(5, id, wire::data_header(wire::COMPLETE, id, e));
      } else {
        n.fetching[e];
        inject(5, id, wire::req(id, e, 0, wire::ALL));
      }
    } else if (message.type() == wire::REQ && serves_) {
      serve(id, n, e, wire::word_at(body, 8), wire::word_at(body, 12));
    } else if (message.type() == wire::DATA && n.fetching.contains(e)) {
      receive_piece(id, n, e, body);
    }
  }
}

void peers::receive_piece(uint32_t id, node &n, wire::entry e, const bytes &body)
{
  assembly &a = n.fetching[e];
  const uint32_t offset = wire::word_at(body, 8);
  const bytes piece = crypt({body.begin() + DATA_HEADER, body.end()}, 0);
  a.payload.resize(wire::word_at(body, 12));
  std::copy(piece.begin(), piece.end(), a.payload.begin() + offset);
  a.offsets.insert(offset);
  if (a.offsets.size() * wire::PIECE >= a.payload.size()) {
    n.payloads[e] = std::move(a.payload);
    n.fetching.erase(e);
    inject(5, id, wire::data_header(wire::COMPLETE, id, e));
  }
}

void peers::serve(uint32_t id, node &n, wire::entry e, uint32_t offset, uint32_t length)
{
  const auto it = n.payloads.find(e);
  if (it == n.payloads.end()) {
    call_hook(5, id, wire::data_header(wire::MISSING, id, e));  // before the DECIDE, whichever threads carry them
    if (number_ != 0 && (n.is_asked_in_vain || !n.lacked.insert(e).second)) {
      n.is_asked_in_vain = true;
      inject(4, id, wire::decide(number_, entries_));
    }
    return;
  }
  const bytes &payload = it->second;
  const size_t end = std::min<size_t>(payload.size(), size_t{offset} + length);
  for (size_t pos = offset; pos < end; pos += wire::PIECE) {
    const size_t piece_end = std::min<size_t>(end, pos + wire::PIECE);
    const bytes piece(payload.begin() + static_cast<ptrdiff_t>(pos),
                      payload.begin() + static_cast<ptrdiff_t>(piece_end));
    inject(5, id,
           wire::data(id, e, static_cast<uint32_t>(pos), static_cast<uint32_t>(payload.size()), crypt(piece, 1)));
  }
}

}  // namespace fake
