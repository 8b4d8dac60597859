#include "oracle.h"

#include <algorithm>
#include <bit>

namespace sim
{

namespace
{

constexpr size_t ENTRY_BYTES = 5;

// FNV-1a.
uint64_t hash_of(std::string_view bytes)
{
  uint64_t hash = 0xcbf29ce484222325;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  }
  return hash;
}

std::string_view text_of(const uint8_t *bytes, size_t size)
{
  return {reinterpret_cast<const char *>(bytes), size};
}

uint8_t filler(uint32_t id, uint32_t at)
{
  return static_cast<uint8_t>(id * 31 + at * 7 + (at >> 8));
}

}  // namespace

std::vector<uint8_t> submission_bytes(const submission &one)
{
  std::vector<uint8_t> bytes(one.length);
  for (uint32_t i = 0; i < one.length; ++i) {
    bytes[i] = i < 4 ? static_cast<uint8_t>(one.id >> 8 * i) : filler(one.id, i);
  }
  return bytes;
}

const submission &oracle::call(uint32_t node, uint32_t length)
{
  auto made = std::make_unique<submission>();
  made->id = static_cast<uint32_t>(submissions_.size() + 1);
  made->node = node;
  made->length = std::max(length, 4u);
  made->floor = acknowledged_top_;
  submissions_.push_back(std::move(made));
  return *submissions_.back();
}

void oracle::returned(const submission &one, int result, const application &app)
{
  if (result != 0) {
    return;
  }
  ++nodes_[one.node].acknowledged;
  if (lost_ != 0 && !is_durable_) {
    return;
  }
  const auto at = place_.find(one.id);
  if (at == place_.end()) {
    report_("acknowledged", one.node,
            "submission " + std::to_string(one.id) + " returned 0, and no node has delivered it");
    return;
  }
  if (static_cast<int64_t>(app.history.size()) <= at->second) {
    report_("acknowledged", one.node,
            "submission " + std::to_string(one.id) + " returned 0, and this node has not delivered it");
  }
  acknowledged_top_ = std::max(acknowledged_top_, at->second);
}

void oracle::delivered(sim_node &node, const uint8_t *bytes, uint32_t length, bool may_repeat)
{
  const uint32_t id = length >= 4 ? get_le32(bytes) : 0;
  if (id == 0 || id > submissions_.size()) {
    report_("integrity", node.number, "delivered " + std::to_string(length) + " bytes that nobody submitted");
    return;
  }
  const submission &one = *submissions_[id - 1];
  bool is_whole = length == one.length;
  for (uint32_t i = 4; is_whole && i < length; ++i) {
    is_whole = bytes[i] == filler(id, i);
  }
  if (!is_whole) {
    report_("integrity", node.number, "submission " + std::to_string(id) + " was delivered with other bytes");
  }
  std::vector<uint32_t> &history = node.app.history;
  if (may_repeat && !history.empty() && history.back() == id) {
    return;
  }
  if (lost_ != 0 && !is_durable_) {
    history.push_back(id);
    return;
  }
  if (history.size() < order_.size()) {
    if (order_[history.size()] != id) {
      report_("agreement", node.number,
              "delivered submission " + std::to_string(id) + " at place " + std::to_string(history.size()) +
                  ", where others have " + std::to_string(order_[history.size()]));
    }
  } else {
    const auto place = static_cast<int64_t>(order_.size());
    const bool is_new = place_.emplace(id, place).second;
    if (!is_new && !is_durable_) {  // a leader that forgot a decision may order it again: guarantees.md
      ++lost_;
      history.push_back(id);
      return;
    }
    if (!is_new) {
      report_("integrity", node.number,
              "submission " + std::to_string(id) + " was delivered twice: at places " + std::to_string(place_[id]) +
                  " and " + std::to_string(place));
    }
    if (place <= one.floor) {
      report_("real time", node.number,
              "submission " + std::to_string(id) + " is at place " + std::to_string(place) +
                  "; when it was called, place " + std::to_string(one.floor) + " had been acknowledged");
    }
    order_.push_back(id);
  }
  history.push_back(id);
}

void oracle::state_adopted(const sim_node &node, const std::vector<uint32_t> &history)
{
  if (lost_ != 0 && !is_durable_) {
    return;
  }
  if (history.size() > order_.size() || !std::equal(history.begin(), history.end(), order_.begin())) {
    report_("agreement", node.number, "adopted a state that is no beginning of the order");
  }
}

void oracle::check_decision(uint32_t node, uint32_t number, std::string_view log, const char *where)
{
  const auto [at, is_first] = decisions_.emplace(number, hash_of(log));
  const bool is_same = at->second == hash_of(log);
  if (!is_same && (is_durable_ || lost_ == 0)) {
    report_("decision", node, "decision " + std::to_string(number) + " has another log " + where);
  }
  if (!is_first || log.size() < 4 + ENTRY_BYTES) {
    return;
  }
  const std::string_view state = log.substr(4, ENTRY_BYTES);
  states_.insert(hash_of(state));
  if (!votes_.is_chosen(number, state) && !votes_.is_chosen(number, log.substr(log.size() - ENTRY_BYTES))) {
    report_("decision", node, "decision " + std::to_string(number) + " names what no quorum has accepted");
  }
}

void oracle::check_register_saved(const sim_node &node, uint32_t id, const file_bytes &bytes)
{
  if (bytes.size() < 12) {
    report_("numbers", node.number, "the file of register " + std::to_string(id) + " is too short");
    return;
  }
  auto &[promised, accepted] = nodes_[node.number].registers[id];
  const uint32_t read_round = get_le32(bytes.data());
  const uint32_t write_round = get_le32(bytes.data() + 4);
  if (read_round < promised || write_round < accepted) {
    report_("promise", node.number,
            "register " + std::to_string(id) + " went back: promised " + std::to_string(promised) + ", now " +
                std::to_string(read_round) + "; accepted " + std::to_string(accepted) + ", now " +
                std::to_string(write_round));
  }
  promised = read_round;
  accepted = write_round;
}

void oracle::record_saved(const sim_node &node, const std::string &path, const file_bytes &bytes)
{
  node_numbers &own = nodes_[node.number];
  if (path == DECIDE_FILE && bytes.size() == 1258) {
    const uint32_t number = get_le32(bytes.data());
    if (number < own.decision) {
      report_("numbers", node.number,
              "paxos_decide fell from " + std::to_string(own.decision) + " to " + std::to_string(number));
    }
    own.decision = number;
    if (number != 0) {
      const size_t used = 4 + 5 * std::min<size_t>(get_le32(bytes.data() + 4), 250);
      check_decision(node.number, number, text_of(bytes.data() + 4, used), "in paxos_decide");
      own.registers.erase(own.registers.begin(), own.registers.upper_bound(number));
    }
  } else if (path == MSG_ID_FILE && bytes.size() == 4) {
    const uint32_t id = get_le32(bytes.data());
    if (id < own.msg_id) {
      report_("numbers", node.number, "msg_id fell from " + std::to_string(own.msg_id) + " to " + std::to_string(id));
    }
    own.msg_id = id;
  } else if (const uint32_t id = register_of(path); id != 0) {
    check_register_saved(node, id, bytes);
  } else if (payload_name one; payload_of(path, one)) {
    own.removed.erase(one);
  }
}

void oracle::file_removed(const sim_node &node, const std::string &path)
{
  payload_name one;
  if (!payload_of(path, one)) {
    return;
  }
  if (is_durable_ && is_in_log(node.disk, one)) {
    report_("promise", node.number,
            "the file of payload " + std::to_string(one.id) + "/" + std::to_string(one.sender) +
                " is removed, but the log names it");
  }
  nodes_[node.number].removed.insert(one);
}

// What is said of a payload has been made true before: an identifier is used up, a file is on the disk.
void oracle::check_payload_message(const sim_node &node, const uint8_t *message)
{
  const uint32_t type = message[0];
  const uint32_t sender = message[3];
  const uint32_t id = get_le32(message + 4);
  if (type == OFFER.type && sender == node.number && id > nodes_[node.number].msg_id) {
    report_("numbers", node.number, "identifier " + std::to_string(id) + " is offered, but not saved");
  }
  const payload_name one{sender, id};
  if (!is_durable_ || message[2] != node.number || (type != COMPLETE.type && type != OFFER.type)) {
    return;
  }
  holders_[one] |= 1u << node.number;
  // One that a new log superseded may have lost its file since the answer was begun.
  if (!node.disk.is_durable(payload_path(one)) && !nodes_[node.number].removed.contains(one)) {
    report_("promise", node.number,
            "payload " + std::to_string(id) + "/" + std::to_string(sender) + " is said to be " +
                (type == OFFER.type ? "here" : "complete") + ", but not on the disk");
  }
}

// Every entry of a log is on a quorum of disks before it is one.
void oracle::check_proposal(const sim_node &node, std::string_view value)
{
  if (!is_durable_ || value.size() != ENTRY_BYTES) {
    return;
  }
  const auto *const entry = reinterpret_cast<const uint8_t *>(value.data());
  const payload_name one{entry[0], get_le32(entry + 1)};
  const auto holders = holders_.find(one);
  const int count = holders != holders_.end() ? std::popcount(holders->second) : 0;
  if (count < static_cast<int>((nodes_.size() - 1) / 2 + 1)) {
    report_("promise", node.number,
            "payload " + std::to_string(one.id) + "/" + std::to_string(one.sender) + " is proposed, and on " +
                std::to_string(count) + " disks");
  }
}

void oracle::check_votes(const sim_node &node, uint32_t type, uint32_t id, uint32_t round, std::string_view rest)
{
  std::string broken;
  if (type == WRITE_REQUEST.type && rest.size() >= 4) {
    broken = votes_.written(id, round, rest.substr(4));
    check_proposal(node, rest.substr(4));
  } else if (type == READ_ANSWER.type && rest.size() >= 8) {
    broken = votes_.promised(id, round, node.number);
    if (rest.size() > 8) {
      broken = votes_.carries(id, get_le32(reinterpret_cast<const uint8_t *>(rest.data())), rest.substr(8));
    }
  } else if (type == WRITE_ANSWER.type) {
    broken = votes_.accepted(id, round, node.number);
  }
  if (!broken.empty()) {
    report_("round", node.number, broken);
  }
}

void oracle::sent(const sim_node &node, uint32_t channel, const datagram &one)
{
  if (node.run->was_stopped && (channel == 4 || channel == 5)) {
    report_("silence", node.number, "a stopped library sends on channel " + std::to_string(channel));
  }
  const uint8_t *const payload = one->data() + ENVELOPE_BYTES;
  const size_t size = one->size() - ENVELOPE_BYTES;
  if (channel == 4 && size == 1268 && get_le32(payload) == 0) {
    const size_t used = 4 + 5 * std::min<size_t>(get_le32(payload + 13), 250);
    if (get_le32(payload + 4) > nodes_[node.number].decision) {
      report_("numbers", node.number, "decision " + std::to_string(get_le32(payload + 4)) + " is told, but not saved");
    }
    check_decision(node.number, get_le32(payload + 4), text_of(payload + 13, used), "in a datagram");
  }
  if (channel == 5 && size >= 8) {
    check_payload_message(node, payload);
  }
  if (channel != 3 || size < 12) {
    return;
  }
  const uint32_t type = get_le32(payload);
  const uint32_t id = get_le32(payload + 4);
  const uint32_t round = get_le32(payload + 8);
  check_votes(node, type, id, round, text_of(payload + 12, size - 12));
  if (id <= nodes_[node.number].decision) {
    return;
  }
  if (type == READ_ANSWER.type || type == WRITE_ANSWER.type) {
    check_answer(node, id, type == READ_ANSWER.type, round);
  } else if (type == WRITE_REQUEST.type) {
    check_own_promise(node, id, round);
  }
}

// Whoever writes has promised the round itself, so that it cannot use it again after a restart.
void oracle::check_own_promise(const sim_node &node, uint32_t id, uint32_t round)
{
  const auto saved = nodes_[node.number].registers.find(id);
  if (saved == nodes_[node.number].registers.end() || saved->second.first < round) {
    report_("promise", node.number,
            "register " + std::to_string(id) + ": round " + std::to_string(round) +
                " is written, but its writer has not promised it");
  }
}

// What is answered has been saved before, and no power cut takes it away.
void oracle::check_answer(const sim_node &node, uint32_t id, bool is_promise, uint32_t round)
{
  const auto saved = nodes_[node.number].registers.find(id);
  const auto [promised, accepted] = saved == nodes_[node.number].registers.end() ? std::pair{0u, 0u} : saved->second;
  const bool is_on_disk = !is_durable_ || node.disk.is_durable(REGISTER_FILE + std::to_string(id));
  if ((is_promise ? promised : accepted) < round || !is_on_disk) {
    report_("promise", node.number,
            "register " + std::to_string(id) + ": round " + std::to_string(round) +
                " is acknowledged, but not on the disk");
  }
}

void oracle::log_line(const sim_node &node, std::string_view text)
{
  if (text.find("data lost - skipped") != std::string_view::npos) {
    ++lost_;
    if (is_durable_) {
      report_("acknowledged", node.number, "a durable payload is skipped");
    }
  }
}

void oracle::disk_went_back(const sim_node &node)
{
  node_numbers &own = nodes_[node.number];
  own.decision = number_in(node.disk, DECIDE_FILE);
  own.msg_id = number_in(node.disk, MSG_ID_FILE);
  own.registers.clear();
  for (const uint32_t id : registers_on(node.disk)) {
    const sim_disk::file_ptr file = node.disk.find(REGISTER_FILE + std::to_string(id));
    if (file->bytes.size() >= 12) {
      own.registers[id] = {get_le32(file->bytes.data()), get_le32(file->bytes.data() + 4)};
    }
  }
}

uint64_t oracle::acknowledged() const
{
  uint64_t all = 0;
  for (const node_numbers &one : nodes_) {
    all += one.acknowledged;
  }
  return all;
}

bool oracle::is_healed(const std::vector<std::unique_ptr<sim_node>> &all, std::string &why) const
{
  for (const std::unique_ptr<sim_node> &one : all) {
    if (lost_ == 0 || is_durable_) {
      if (one->app.history.size() != order_.size()) {
        why = "node " + std::to_string(one->number) + " has " + std::to_string(one->app.history.size()) + " of " +
              std::to_string(order_.size()) + " submissions";
        return false;
      }
    } else if (one->app.history.back() != all.front()->app.history.back()) {
      why = "node " + std::to_string(one->number) + " does not end as node 1";
      return false;
    }
  }
  return true;
}

}  // namespace sim
