#include "submit/outbox.h"

#include <algorithm>
#include <utility>

namespace kesh
{

namespace
{

constexpr const char *STOPPING = "the daemon is stopping";
constexpr const char *FAILED_BEFORE = "not submitted, a line before it was not";

std::string limit_text(const char *what, size_t limit)
{
  return std::string("too many ") + what + " (limit " + std::to_string(limit) + ')';
}

std::string bytes_text(const char *whose, size_t limit, size_t open)
{
  return std::string("too many bytes ") + whose + " are open (limit " + std::to_string(limit) + ", " +
         std::to_string(open) + " are open)";
}

}  // namespace

uint64_t outbox::open_client(const client_options &options, std::string &refusal)
{
  if (stopped_ || open_clients_ >= limits_.clients) {
    refusal = stopped_ ? STOPPING : limit_text("clients submit", limits_.clients);
    return 0;
  }
  auto made = std::make_unique<client>();
  made->id = ++last_client_;
  made->options = options;
  clients_.emplace(made->id, std::move(made));
  open_clients_++;
  return last_client_;
}

std::string outbox::refusal(const client &from, size_t size) const
{
  if (stopped_) {
    return STOPPING;
  }
  if (from.has_failed) {
    return FAILED_BEFORE;
  }
  if (from.items >= limits_.client_items) {
    return limit_text("lines of one client are open", limits_.client_items);
  }
  if (size > limits_.client_bytes - std::min(from.bytes, limits_.client_bytes)) {
    return bytes_text("of one client", limits_.client_bytes, from.bytes);
  }
  if (counts_.open >= limits_.items) {
    return limit_text("lines are open on this node", limits_.items);
  }
  if (size > limits_.bytes - std::min(bytes_, limits_.bytes)) {
    return bytes_text("on this node", limits_.bytes, bytes_);
  }
  return {};
}

push_verdict outbox::push(uint64_t client_id, std::span<new_item> items, time_point now)
{
  const auto found = clients_.find(client_id);
  if (found == clients_.end() || found->second->is_gone) {
    return {0, "the client has left"};
  }
  client &from = *found->second;
  push_verdict verdict;
  for (new_item &one : items) {
    verdict.refusal = refusal(from, one.text.size());
    if (!verdict.refusal.empty()) {
      counts_.refused += items.size() - verdict.taken;
      break;
    }
    open_item &added = from.waiting.emplace_back();
    added.owner = &from;
    added.kind = one.kind;
    added.number = one.number;
    added.pushed_at = now;
    added.text = std::move(one.text);
    from.items++;
    from.bytes += added.text.size();
    bytes_ += added.text.size();
    counts_.open++;
    verdict.taken++;
  }
  if (verdict.taken > 0) {
    next_deadline_ = std::min(next_deadline_, now + from.options.timeout);
    make_ready(from);
  }
  return verdict;
}

void outbox::close_client(uint64_t client_id)
{
  const auto found = clients_.find(client_id);
  if (found == clients_.end() || found->second->is_gone) {
    return;
  }
  client &left = *found->second;
  left.is_gone = true;
  open_clients_--;
  unready(left);
  for (const open_item &one : left.waiting) {
    bytes_ -= one.text.size();
  }
  counts_.open -= left.waiting.size();
  counts_.not_submitted += left.waiting.size();
  left.waiting.clear();
  erase_if_gone(left);
}

void outbox::make_ready(client &from)
{
  if (!from.is_ready && !from.is_gone && from.under_way == 0 && !from.waiting.empty()) {
    from.is_ready = true;
    ready_.push_back(&from);
  }
}

void outbox::unready(client &from)
{
  if (from.is_ready) {
    from.is_ready = false;
    std::erase(ready_, &from);
  }
}

void outbox::close(open_item &one, item_fate fate, uint64_t line, const char *reason, time_point now)
{
  client &owner = *one.owner;
  const auto time_us = std::chrono::duration_cast<std::chrono::microseconds>(now - one.pushed_at).count();
  if (!owner.is_gone) {
    results_.add(
        owner.options.receiver, owner.id,
        {fate, one.attempts, one.number, one.sequence, line, static_cast<uint64_t>(time_us), one.text.size(), reason});
  }
  if (fate == item_fate::applied) {
    counts_.times.add(static_cast<uint64_t>(time_us));
  }
  one.now = fate == item_fate::applied ? open_item::state::applied : open_item::state::expired;
  owner.items--;
  owner.bytes -= one.text.size();
  counts_.open--;
  (fate == item_fate::applied         ? counts_.applied
   : fate == item_fate::not_submitted ? counts_.not_submitted
                                      : counts_.unknown)++;
  if (fate != item_fate::applied && owner.options.stops_at_failure && !owner.has_failed) {
    owner.has_failed = true;
    refuse_waiting(owner, FAILED_BEFORE, now);
  }
}

void outbox::refuse_waiting(client &from, const char *reason, time_point now)
{
  unready(from);
  std::deque<open_item> refused;
  refused.swap(from.waiting);
  for (open_item &one : refused) {
    bytes_ -= one.text.size();
    close(one, item_fate::not_submitted, 0, reason, now);
  }
}

void outbox::release(client &owner)
{
  owner.under_way--;
  make_ready(owner);
  erase_if_gone(owner);
}

void outbox::erase_if_gone(client &one)
{
  if (one.is_gone && one.under_way == 0) {
    clients_.erase(one.id);
  }
}

bool outbox::has_worth_beside(const batch &first) const
{
  return first.not_applied == 0 || bytes_ - first.bytes >= limits_.payload_bytes;
}

bool outbox::has_room() const
{
  const bool has_slot = std::all_of(slots_.begin(), slots_.end(), [this](const batch &one) {
    return !one.is_under_way || (one.ordinal == last_ordinal_ && has_worth_beside(one));
  });
  return has_slot && !is_repeating_;
}

outbox::readiness outbox::ready() const
{
  if (stopped_ || !has_room()) {
    return readiness::nothing;
  }
  if (again_open_ > 0) {
    return slots_[0].is_under_way || slots_[1].is_under_way ? readiness::nothing : readiness::soon;
  }
  return ready_.empty() ? readiness::nothing : needs_hold() ? readiness::soon : readiness::now;
}

outbox::step outbox::take(time_point now, bool is_active)
{
  was_active_ = is_active;
  if (next_deadline_ <= now) {
    expire(now);
  }
  if (ready() == readiness::nothing || !is_active) {
    hold_until_ = NEVER;
    return {};
  }
  const bool repeats = again_open_ > 0;
  if (repeats && now < again_at_) {
    return {{}, again_at_};
  }
  if (!repeats && needs_hold()) {
    hold_until_ = std::min(hold_until_, now + hold_time_);
    if (now < hold_until_) {
      return {{}, hold_until_};
    }
  }
  hold_until_ = NEVER;
  const size_t slot = slots_[0].is_under_way ? 1 : 0;
  if (repeats) {
    fill_again(slots_[slot].items);
  } else {
    fill(slots_[slot].items);
  }
  is_repeating_ = repeats;
  return {send(slot, now), NEVER};
}

void outbox::fill(std::vector<open_item> &items)
{
  size_t used = PAYLOAD_HEADER_SIZE;
  recent_clients_ = std::exchange(last_clients_, 0);
  // A client with more than its turn goes to the end, so that all have one turn before any has two.
  while (!ready_.empty() && take_turn(*ready_.front(), items, used)) {
    client *served = ready_.front();
    ready_.pop_front();
    if (!served->waiting.empty()) {
      ready_.push_back(served);
    } else {
      served->is_ready = false;
    }
  }
  std::erase_if(ready_, [](client *one) {
    one->is_ready = one->under_way == 0;
    return !one->is_ready;
  });
}

bool outbox::take_turn(client &from, std::vector<open_item> &items, size_t &used)
{
  size_t turn = 0;
  while (!from.waiting.empty()) {
    open_item &first = from.waiting.front();
    const size_t size = ITEM_HEADER_SIZE + first.text.size();
    if (!items.empty() && (used + size > limits_.payload_bytes || items.size() >= limits_.payload_items)) {
      return false;
    }
    if (turn > 0 && turn + size > TURN_SIZE) {
      return true;
    }
    turn += size;
    used += size;
    if (from.under_way++ == 0) {
      last_clients_++;
      recent_clients_ += std::exchange(from.payload, last_ordinal_ + 1) == last_ordinal_ ? 0 : 1;
    }
    first.sequence = ++last_sequence_;
    first.attempts = 1;
    items.push_back(std::move(first));
    from.waiting.pop_front();
  }
  return true;
}

void outbox::fill_again(std::vector<open_item> &items)
{
  for (open_item &one : again_) {
    if (one.now == open_item::state::open) {
      one.attempts++;
      counts_.again++;
      items.push_back(std::move(one));
    } else {
      bytes_ -= one.text.size();
      if (one.now == open_item::state::expired) {
        release(*one.owner);
      }
    }
  }
  again_.clear();
  again_open_ = 0;
}

outbox::taken outbox::send(size_t slot, time_point now)
{
  batch &out = slots_[slot];
  out.is_under_way = true;
  out.ordinal = ++last_ordinal_;
  out.sent_at = now;
  counts_.payloads++;
  taken result{slot, {origin_, life_, {}}};
  result.content.items.reserve(out.items.size());
  out.not_applied = out.items.size();
  out.bytes = 0;
  for (const open_item &one : out.items) {
    out.bytes += one.text.size();
    result.content.items.push_back({one.kind, one.sequence, one.attempts, one.text});
  }
  return result;
}

void outbox::applied(uint64_t sequence, uint64_t line, time_point now)
{
  for (std::vector<open_item> *items : {&slots_[0].items, &slots_[1].items, &again_}) {
    const auto found = std::lower_bound(items->begin(), items->end(), sequence,
                                        [](const open_item &one, uint64_t wanted) { return one.sequence < wanted; });
    if (found == items->end() || found->sequence != sequence) {
      continue;
    }
    for (batch &one : slots_) {
      if (items == &one.items && one.not_applied > 0 && --one.not_applied == 0) {
        hold_time_ = std::clamp<duration>((now - one.sent_at) / HOLD_SHARE, HOLD_MIN, HOLD_MAX);
      }
    }
    if (found->now == open_item::state::open) {
      client &owner = *found->owner;
      close(*found, item_fate::applied, line, "", now);
      again_open_ -= items == &again_ ? 1 : 0;
      release(owner);
      drop_repeat_if_closed();
    }
    return;
  }
}

std::vector<uint64_t> outbox::unanswered(size_t slot) const
{
  std::vector<uint64_t> result;
  for (const open_item &one : slots_[slot].items) {
    if (one.now == open_item::state::open) {
      result.push_back(one.sequence);
    }
  }
  return result;
}

void outbox::ended(size_t slot, bool delivered, time_point now)
{
  std::vector<open_item> &items = slots_[slot].items;
  slots_[slot].is_under_way = false;
  is_repeating_ = false;
  for (open_item &one : items) {
    if (one.now == open_item::state::open && !delivered && !stopped_) {
      again_.push_back(std::move(one));
      again_open_++;
      continue;
    }
    bytes_ -= one.text.size();
    if (one.now == open_item::state::open) {
      close(one, item_fate::unknown, 0, delivered ? "delivered, but its line is not known here" : STOPPING, now);
    }
    if (one.now == open_item::state::expired) {
      release(*one.owner);
    }
  }
  items.clear();
  if (!delivered) {
    again_at_ = now + REPEAT_PAUSE;
    std::sort(again_.begin(), again_.end(),
              [](const open_item &a, const open_item &b) { return a.sequence < b.sequence; });
  }
}

void outbox::expire_waiting(client &from, time_point now)
{
  while (!from.waiting.empty() && deadline(from.waiting.front()) <= now) {
    open_item expired = std::move(from.waiting.front());
    from.waiting.pop_front();
    bytes_ -= expired.text.size();
    close(expired, item_fate::not_submitted, 0,
          was_active_ ? "its time was up before it could be handed over" : "the node was not active in time", now);
  }
  if (from.waiting.empty()) {
    unready(from);
  } else {
    next_deadline_ = std::min(next_deadline_, deadline(from.waiting.front()));
  }
}

size_t outbox::expire_sent(std::vector<open_item> &items, time_point now)
{
  size_t count = 0;
  for (open_item &one : items) {
    if (one.now != open_item::state::open) {
      continue;
    }
    if (deadline(one) <= now) {
      close(one, item_fate::unknown, 0, "no result in time; it may still be applied", now);
      count++;
    } else {
      next_deadline_ = std::min(next_deadline_, deadline(one));
    }
  }
  return count;
}

void outbox::expire(time_point now)
{
  next_deadline_ = NEVER;
  for (batch &one : slots_) {
    expire_sent(one.items, now);
  }
  again_open_ -= expire_sent(again_, now);
  for (const auto &[id, one] : clients_) {
    expire_waiting(*one, now);
  }
  drop_repeat_if_closed();
}

void outbox::drop_repeat_if_closed()
{
  if (again_open_ > 0) {
    return;
  }
  for (open_item &one : again_) {
    bytes_ -= one.text.size();
    if (one.now == open_item::state::expired) {
      release(*one.owner);
    }
  }
  again_.clear();
}

void outbox::stop(time_point now)
{
  stopped_ = true;
  for (const auto &[id, one] : clients_) {
    refuse_waiting(*one, STOPPING, now);
  }
  for (open_item &one : again_) {
    if (one.now == open_item::state::open) {
      close(one, item_fate::unknown, 0, STOPPING, now);
    }
  }
  again_open_ = 0;
  drop_repeat_if_closed();
}

outbox::time_point outbox::oldest() const
{
  time_point oldest = NEVER;
  const auto look_at = [&oldest](const open_item &one) {
    oldest = one.now == open_item::state::open ? std::min(oldest, one.pushed_at) : oldest;
  };
  for (const auto &[id, one] : clients_) {
    if (!one->waiting.empty()) {
      look_at(one->waiting.front());
    }
  }
  for (const batch &slot : slots_) {
    std::for_each(slot.items.begin(), slot.items.end(), look_at);
  }
  std::for_each(again_.begin(), again_.end(), look_at);
  return oldest;
}

result_list outbox::take_results()
{
  return std::exchange(results_, {});
}

}  // namespace kesh
