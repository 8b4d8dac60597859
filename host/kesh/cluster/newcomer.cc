#include "cluster/newcomer.h"

#include <algorithm>
#include <utility>

namespace kesh
{

standing standing_at_start(std::optional<standing> kept, bool has_past)
{
  return kept.value_or(has_past ? standing::member : standing::is_new);
}

void newcomer::begin(standing from)
{
  if (from == standing::is_new && stands_ != standing::is_new) {
    others_ = {};
  }
  stands_ = from;
  are_ids_free_ = false;
  waits_for_ = "it has not looked around yet";
}

void newcomer::heard(const hello &said)
{
  if (said.node == node_ || said.node > node_count_) {
    return;
  }
  other &from = others_[said.node - 1];
  from.is_heard = true;
  from.is_new = said.stands == standing::is_new;
  from.is_reformed = said.stands == standing::reformed;
  if (said.ids) {
    if (!std::exchange(from.has_ids, true)) {
      from.top = said.top;
      from.was_new = said.stands == standing::is_new;
      from.handed_out = (*said.ids)[said.node - 1];
    }
    from.own_id = std::max(from.own_id, (*said.ids)[node_ - 1]);
  }
}

/// Of the other nodes that match: " 2, 3".
template <typename predicate>
std::string newcomer::numbers_of(predicate matches) const
{
  std::string numbers;
  for (uint32_t node = 1; node <= node_count_; ++node) {
    if (node != node_ && matches(others_[node - 1])) {
      numbers += (numbers.empty() ? " " : ", ") + std::to_string(node);
    }
  }
  return numbers;
}

uint32_t newcomer::top() const
{
  uint32_t greatest = 0;
  for (const other &one : others_) {
    greatest = std::max(greatest, one.top);
  }
  return greatest;
}

std::string newcomer::forerunners(const own &now) const
{
  return now.decision != 0 ? "" : numbers_of([](const other &one) { return one.is_reformed; });
}

/// Why it has not joined yet.
std::string newcomer::obstacle(const own &now) const
{
  if (now.has_double) {
    return "another daemon has the number of this node";
  }
  if (const std::string silent = numbers_of([](const other &one) { return !one.is_heard; }); !silent.empty()) {
    return "it has not heard every other node yet: not" + silent;
  }
  if (const std::string busy = numbers_of([](const other &one) { return !one.has_ids; }); !busy.empty()) {
    return "others cannot tell yet what they know: nodes" + busy;
  }
  if (const std::string first = forerunners(now); !first.empty()) {
    return "a reformed cluster begins with the store of one of nodes" + first;
  }
  const auto forgetful = std::count_if(others_.begin(), others_.end(), [](const other &one) { return one.was_new; });
  if (top() != 0 && static_cast<uint32_t>(forgetful) + 1 > node_count_ / 2) {
    return "a majority has no past, and may have forgotten a decision: a person must decide, see kesh reform";
  }
  if (now.decision < top()) {
    return "it knows decision " + std::to_string(now.decision) + ", and others had to do with " + std::to_string(top());
  }
  return now.is_running && now.handled ? "" : "the library's log is not delivered to its end";
}

/// Set: the id above which this node's must begin.
std::optional<uint32_t> newcomer::id_to_raise(const own &now) const
{
  uint32_t used = now.known_msg_id;
  for (const other &one : others_) {
    used = std::max(used, one.own_id);
  }
  // Where something was decided, this node may have used ids that nobody knows, and at first none is known.
  if (used == 0 && top() == 0) {
    return std::nullopt;
  }
  const uint32_t begin = used + std::min(UNKNOWN_IDS_MAX, UINT32_MAX - used);
  return now.msg_id >= begin ? std::nullopt : std::optional(begin);
}

newcomer::step newcomer::advance_new(const own &now)
{
  waits_for_ = obstacle(now);
  if (!waits_for_.empty()) {
    return {};
  }
  if (const auto id = id_to_raise(now)) {
    waits_for_ = "its message ids are being raised";
    return {.becomes = std::nullopt, .msg_id = id};
  }
  step joins{.becomes = now.decision != 0 ? standing::member : standing::joined, .msg_id = std::nullopt};
  if (top() != 0) {
    std::transform(others_.begin(), others_.end(), joins.held.begin(), [](const other &one) { return one.handed_out; });
    joins.held[node_ - 1] = now.msg_id;
  }
  return joins;
}

newcomer::step newcomer::advance_joined(const own &now)
{
  const std::string missing = numbers_of([](const other &one) { return !one.is_heard || one.is_new; });
  if (const std::string first = forerunners(now); !first.empty()) {
    waits_for_ = "one of nodes" + first + " goes first, with its store";
    return {};
  }
  if (now.decision != 0 || missing.empty()) {
    return {.becomes = standing::member, .msg_id = std::nullopt};
  }
  waits_for_ = "nodes that have not joined yet:" + missing;
  return {};
}

newcomer::step newcomer::advance_reformed(const own &now)
{
  const auto told = std::count_if(others_.begin(), others_.end(), [](const other &one) { return one.has_ids; });
  if (static_cast<uint32_t>(told) + 1 <= node_count_ / 2) {
    waits_for_ = "it has not heard a majority yet";
    return {};
  }
  if (const auto id = id_to_raise(now); id && !are_ids_free_) {
    waits_for_ = "its message ids are being raised";
    return {.becomes = std::nullopt, .msg_id = now.is_running ? id : std::nullopt};  // the library is restarted for it
  }
  are_ids_free_ = true;
  if (now.decision != 0) {
    return {.becomes = standing::member, .msg_id = std::nullopt};
  }
  waits_for_ = now.obstacle;
  return {};
}

newcomer::step newcomer::advance(const own &now)
{
  waits_for_.clear();
  switch (stands_) {
  case standing::is_new:
    return advance_new(now);
  case standing::joined:
    return advance_joined(now);
  case standing::reformed:
    return advance_reformed(now);
  case standing::member:
    break;
  }
  return {};
}

std::string newcomer::why_no_submission() const
{
  if (stands_ == standing::reformed && !are_ids_free_) {
    return "the cluster is reformed: " + waits_for_;
  }
  return stands_ == standing::is_new ? "it is new to the cluster: " + waits_for_ : std::string();
}

std::string newcomer::why_no_lead() const
{
  if (stands_ == standing::joined) {
    return "the cluster forms: " + waits_for_;
  }
  return stands_ == standing::reformed && !waits_for_.empty() ? "the cluster is reformed: " + waits_for_
                                                              : why_no_submission();
}

}  // namespace kesh
