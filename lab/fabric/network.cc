#include "network.h"

#include <algorithm>

namespace fabric
{
namespace
{

constexpr int64_t HELD_BACK_NS = 200 * MS_NS;
constexpr size_t PENDING_MAX_BYTES = size_t{256} << 20;

}  // namespace

void network::attach(uint32_t node, port &where)
{
  nodes_[node].where = &where;
  nodes_[node].decide_number.reset();
}

void network::detach(uint32_t node, const port &where)
{
  if (nodes_[node].where == &where) {
    nodes_[node].where = nullptr;
  }
}

uint32_t network::connected() const
{
  uint32_t found = 0;
  for (uint32_t node = 1; node <= NODES_MAX; ++node) {
    found |= nodes_[node].where != nullptr ? node_bit(node) : 0;
  }
  return found;
}

void network::receive(uint32_t from, const datagram_ptr &what, uint32_t receivers)
{
  node_state &sender = nodes_[from];
  ++sender.in;
  sender.in_bytes += what->bytes.size();
  ++types_[static_cast<size_t>(what->info.type)];
  note(from, *what);
  const int64_t now = now_ns();
  int64_t start_ns = now;
  if (receivers != 0 && bytes_per_s_ != 0) {
    bool is_dropped = false;
    start_ns += medium_delay_ns(what->bytes.size(), now, is_dropped);
    if (is_dropped) {
      count(outcome::bandwidth);
      return;
    }
  }
  for (uint32_t to = 1; to <= NODES_MAX; ++to) {
    if ((receivers & node_bit(to)) != 0) {
      route({from, to, what}, start_ns, now);
    }
  }
}

void network::note(uint32_t from, const datagram &what)
{
  node_state &sender = nodes_[from];
  const message_type type = what.info.type;
  const bool is_decide = type == message_type::decide;
  const bool is_repeat = is_decide && sender.decide_number && *what.info.number <= *sender.decide_number;
  log_.sent(from, what.info);
  if (is_decide || type == message_type::decide_update) {
    log_.decided(from, view_decide(what),
                 !is_decide  ? decide_kind::update
                 : is_repeat ? decide_kind::repeat
                             : decide_kind::once);
  }
  if (is_decide && !is_repeat) {
    sender.decide_number = what.info.number;
  }
}

int64_t network::medium_delay_ns(size_t size, int64_t now, bool &is_dropped)
{
  const int64_t begin_ns = std::max(medium_free_ns_, now);
  is_dropped = begin_ns - now > SECOND_NS;
  if (is_dropped) {
    return 0;
  }
  const double seconds = static_cast<double>(size) / static_cast<double>(bytes_per_s_);
  medium_free_ns_ = begin_ns + static_cast<int64_t>(seconds * static_cast<double>(SECOND_NS));
  return medium_free_ns_ - now;
}

void network::set_bandwidth(uint64_t bytes_per_s)
{
  bytes_per_s_ = bytes_per_s;
  medium_free_ns_ = 0;
}

void network::set_cuts(const std::vector<std::pair<uint32_t, uint32_t>> &pairs)
{
  cuts_ = {};
  for (const auto &[from, to] : pairs) {
    cuts_[from] |= node_bit(to);
  }
}

/// `start_ns`: when it has passed the medium.
void network::route(const delivery &one, int64_t start_ns, int64_t now)
{
  if ((cuts_[one.from] & node_bit(one.to)) != 0) {
    count(outcome::cut);
    return;
  }
  const fate what = rules_.decide(one.from, one.to, one.what->info);
  if (what.is_lost) {
    count(outcome::lost);
    return;
  }
  for (uint32_t copy = 0; copy < what.copies; ++copy) {
    const int64_t delay_ns = what.delay_ns[copy];
    if (copy > 0) {
      count(outcome::duplicated);
    }
    if (delay_ns > 0) {
      count(outcome::delayed);
    }
    if (what.behind > 0 && copy == 0) {
      count(outcome::reordered);
      held_back_.push_back({one, what.behind, start_ns + delay_ns + HELD_BACK_NS});
    } else {
      deliver_at(one, start_ns + delay_ns, now);
    }
  }
}

void network::deliver_at(const delivery &one, int64_t due_ns, int64_t now)
{
  if (due_ns <= now) {
    deliver(one);
    return;
  }
  const size_t size = one.what->bytes.size();
  if (pending_bytes_ + size > PENDING_MAX_BYTES) {
    count(outcome::overflow);
    return;
  }
  pending_bytes_ += size;
  pending_.push({due_ns, ++order_, one});
}

void network::deliver(const delivery &one)
{
  node_state &receiver = nodes_[one.to];
  if ((cuts_[one.from] & node_bit(one.to)) != 0) {
    count(outcome::cut);
  } else if (receiver.where == nullptr) {
    count(outcome::no_port);
  } else if (!receiver.where->put(*one.what)) {
    ++receiver.overflow;
    count(outcome::overflow);
  } else {
    ++receiver.out;
    receiver.out_bytes += one.what->bytes.size();
    count(outcome::delivered);
  }
  if (!held_back_.empty()) {
    let_pass(one.from, one.to);
  }
}

/// One more has passed on that way: what was held back behind it comes closer.
void network::let_pass(uint32_t from, uint32_t to)
{
  std::vector<delivery> free;
  for (auto each = held_back_.begin(); each != held_back_.end();) {
    if (each->what.from == from && each->what.to == to && --each->behind == 0) {
      free.push_back(std::move(each->what));
      each = held_back_.erase(each);
    } else {
      ++each;
    }
  }
  for (const delivery &one : free) {
    deliver(one);
  }
}

int64_t network::next_due_ns() const
{
  int64_t due_ns = pending_.empty() ? NEVER_NS : pending_.top().due_ns;
  for (const held_back &one : held_back_) {
    due_ns = std::min(due_ns, one.due_ns);
  }
  return due_ns;
}

void network::advance(int64_t now)
{
  while (!pending_.empty() && pending_.top().due_ns <= now) {
    const delivery one = pending_.top().what;
    pending_.pop();
    pending_bytes_ -= one.what->bytes.size();
    deliver(one);
  }
  std::vector<delivery> late;
  for (auto each = held_back_.begin(); each != held_back_.end();) {
    if (each->due_ns <= now) {
      late.push_back(std::move(each->what));
      each = held_back_.erase(each);
    } else {
      ++each;
    }
  }
  for (const delivery &one : late) {
    deliver(one);
  }
}

nlohmann::json network::stats() const
{
  static constexpr std::array<const char *, static_cast<size_t>(outcome::count)> NAMES = {
      "delivered", "lost", "duplicated", "delayed", "reordered", "cut", "bandwidth", "overflow", "no_port"};
  nlohmann::json nodes = nlohmann::json::object();
  for (uint32_t node = 1; node <= NODES_MAX; ++node) {
    const node_state &one = nodes_[node];
    if (one.where != nullptr || one.in != 0 || one.out != 0) {
      nodes[std::to_string(node)] = {{"is_connected", one.where != nullptr},
                                     {"in", one.in},
                                     {"in_bytes", one.in_bytes},
                                     {"out", one.out},
                                     {"out_bytes", one.out_bytes},
                                     {"overflow", one.overflow}};
    }
  }
  nlohmann::json fates = nlohmann::json::object();
  for (size_t i = 0; i < NAMES.size(); ++i) {
    fates[NAMES[i]] = outcomes_[i];
  }
  nlohmann::json types = nlohmann::json::object();
  for (size_t i = 0; i < types_.size(); ++i) {
    if (types_[i] != 0) {
      types[std::string(type_name(static_cast<message_type>(i)))] = types_[i];
    }
  }
  return {{"nodes", nodes}, {"fates", fates}, {"types", types}};
}

}  // namespace fabric
