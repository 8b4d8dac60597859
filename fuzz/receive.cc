// Messages on the four channels of a running node, leader or follower, alone or among peers that answer.
//
// Input: how the node begins, then steps until the input ends. Most numbers are near those that the node works with.

#include <algorithm>
#include <thread>

#include "instance.h"
#include "payload_dissemination/cons_crypt.h"
#include "payload_dissemination/data_state.h"
#include "peers.h"
#include "vx_cons.h"

using wire::bytes;
using wire::entry;
using wire::operator+;

namespace
{

class script
{
public:
  explicit script(std::span<const uint8_t> input) : in_(input) {}
  void run();

private:
  entry next_entry() { return {static_cast<uint8_t>(in_.near(3)), in_.near(20)}; }
  wire::log next_log();
  bytes next_payload();
  bytes register_message();
  bytes data_message();
  bytes next_message(uint32_t &channel);
  void send_payload();
  void submit();
  void step();

  input_reader in_;
  uint32_t number_ = 0;  // of the last decision that we know
  uint32_t from_ = 2;    // whoever sends now
  std::vector<std::thread> callers_;
};

// Messages of one node in turn, one of which may be anything.
wire::log script::next_log()
{
  wire::log entries(in_.byte());
  entry next = next_entry();
  for (entry &e : entries) {
    e = next;
    ++next.second;
  }
  if (const size_t at = in_.byte(); at > 0 && at <= entries.size()) {
    entries[at - 1] = next_entry();
  }
  return entries;
}

bytes script::next_payload()
{
  std::vector<wire::record> records(in_.byte() % 5);
  for (auto &[type, content] : records) {
    type = in_.near(3) % 8;
    content.resize(in_.flag() ? in_.near(wire::PIECE - 24) % 5000 : in_.byte() % 16, 'x');
  }
  bytes payload = wire::payload(in_.near(4), records);
  if (const size_t at = in_.byte(); at > 0 && at < payload.size()) {
    payload[at] = in_.byte();
  }
  return payload;
}

bytes script::register_message()
{
  const uint32_t type = in_.byte() % 7;
  const bytes head = wire::words({type, in_.near(number_ + 1), in_.near(4)});
  if (type != wire::READ_ACK && type != wire::WRITE_REQ) {
    return head;
  }
  const bytes value = in_.flag() ? wire::entry_bytes(next_entry()) : in_.bytes(in_.byte());
  const uint32_t length = in_.flag() ? in_.near(5) : static_cast<uint32_t>(value.size());
  return head + (type == wire::READ_ACK ? wire::words({in_.near(4), length}) : wire::words({length})) + value;
}

bytes script::data_message()
{
  const uint32_t type = in_.byte() % 6;
  const uint32_t from = in_.near(from_);
  const bytes head = wire::data_header(type, from, next_entry());
  if (type == wire::REQ) {
    return head + wire::words({in_.near(0), in_.near(wire::PIECE)});
  }
  if (type == wire::DATA) {
    const uint32_t total = in_.near(in_.byte() % 4 * wire::PIECE + 20);
    const uint32_t offset = in_.flag() ? in_.byte() % 8 * wire::PIECE : in_.near(0);
    const uint32_t sound = std::min(wire::PIECE, total - offset);
    return head + wire::words({offset, total, in_.flag() ? in_.near(sound) : sound}) + bytes(sound);
  }
  return head;
}

bytes script::next_message(uint32_t &channel)
{
  const uint8_t kind = in_.byte() % 6;
  channel = kind == 0 ? 3 : kind <= 2 ? 4 : kind == 3 ? 5 : kind == 4 ? 6 : 3 + in_.byte() % 4u;
  switch (kind) {
  case 0:
    return register_message();
  case 1:
    number_ = in_.near(number_);
    return wire::decide(number_, next_log());
  case 2:
    return wire::forward(next_entry());
  case 3:
    return data_message();
  default:
    return in_.bytes(in_.byte());
  }
}

// All pieces of a payload, offered before, perhaps ordered after.
void script::send_payload()
{
  const entry e = next_entry();
  const bytes payload = next_payload();
  const auto size = static_cast<uint32_t>(payload.size());
  fake::inject(5, from_, wire::data_header(wire::OFFER, from_, e));
  for (uint32_t pos = 0; pos < size; pos += wire::PIECE) {
    bytes piece(std::min(wire::PIECE, size - pos));
    cons_crypt(piece.data(), payload.data() + pos, static_cast<uint32_t>(piece.size()), 1);
    fake::inject(5, from_, wire::data(from_, e, pos, size, piece));
  }
  if (in_.flag()) {
    fake::inject(4, from_, wire::decide(++number_, {next_entry(), e}));
  }
}

void script::submit()
{
  if (callers_.size() < 3) {
    callers_.emplace_back([data = in_.bytes(1 + in_.byte() % 8)] {
      vx_cons_distribute(data.data(), static_cast<uint32_t>(data.size()), data.empty() ? 0 : data[0] % 5u);
    });
  }
}

// What only happens after seconds of silence happens now.
void let_time_pass()
{
  pull_record &pull = paxos_data.pull;
  cons_lock lock(pull.lock);
  for (int64_t *time_us : {&pull.requested_us, &pull.data_us, &pull.claimed_us, &pull.damaged_until_us}) {
    *time_us -= *time_us != 0 ? 10000000 : 0;
  }
  pull.last = {};
  pull.changed_cond.broadcast();
}

void script::step()
{
  const uint8_t choice = in_.byte();
  if (choice >= 250) {
    send_payload();
  } else if (choice >= 248) {
    vx_cons_stop();
    require(vx_cons_start() == 0, "the node starts again from what it has stored");
  } else if (choice >= 244) {
    let_time_pass();
  } else if (choice >= 240) {
    submit();
  } else {
    uint32_t channel = 0;
    from_ = choice % 18;
    bytes message = next_message(channel);
    if (choice >= 180) {
      message.resize(in_.near(static_cast<uint32_t>(message.size())) % 2000);
    }
    fake::inject(channel, from_, message);
  }
  wait_handled();
}

void script::run()
{
  constexpr uint32_t NODE_COUNTS[] = {1, 3, 5, 16};
  const uint8_t shape = in_.byte();
  const uint32_t node_count = NODE_COUNTS[shape & 3];
  instance node(node_count);
  number_ = in_.near(4);
  wire::log log = next_log();
  log.resize(std::min<size_t>(log.size(), 250));
  std::erase_if(log, [](entry e) { return e.first < 1 || e.first > 16 || e.second == 0; });
  files::write("paxos_decide", wire::words({number_}) + wire::log_bytes(log));
  files::write("paxos_deliver", wire::entry_bytes(next_entry()));
  fake::peers others(1, node_count);
  others.adopt(number_, log);
  others.set_votes((shape & 4) != 0);
  others.set_fetches((shape & 8) != 0);
  others.set_serves((shape & 16) != 0);
  others.lead((shape & 32) != 0 && node_count > 1 ? 2 : 0);
  require(node.start((shape & 64) != 0) == 0, "a node with sound files starts");
  for (int i = 0; i < 40 && !in_.is_empty(); ++i) {
    step();
  }
  vx_cons_stop();
  for (std::thread &caller : callers_) {
    caller.join();
  }
}

}  // namespace

void fuzz_receive(std::span<const uint8_t> input)
{
  script(input).run();
}
