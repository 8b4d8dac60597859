#include "payload_dissemination/loss_judge.h"

#include <algorithm>

void loss_judge::start(uint32_t node_count, uint32_t own_node)
{
  const uint32_t in_hand = in_hand_;  // a message that is being handled now ends after the start
  *this = {};
  in_hand_ = in_hand;
  node_count_ = std::min(node_count, NODES_MAX);
  own_node_ = own_node;
}

void loss_judge::seeks(id_entry entry, bool is_held)
{
  is_held_ = is_held;
  if (entry_ != entry) {
    entry_ = entry;
    request_us_ = 0;
    forget_answers();
  }
}

void loss_judge::looked(int64_t now_us)
{
  if (now_us - looked_us_ > GAP_US) {
    resumed_us_ = now_us;
  }
  looked_us_ = now_us;
}

void loss_judge::requested(int64_t now_us)
{
  // The second that ends here counts if a quorum answered and this node ran all the time.
  if (request_us_ != 0 && request_us_ >= resumed_us_ && has_quorum_answered()) {
    for (uint32_t i = 0; i < node_count_; ++i) {
      if (!nodes_[i].is_heard) {
        ++nodes_[i].silent_requests;
      }
    }
  }
  request_us_ = now_us;
  forget_answers();
}

loss_judge::advice loss_judge::look(id_entry entry, bool is_held, int64_t now_us)
{
  seeks(entry, is_held);
  looked(now_us);
  const verdict now = judge(now_us);
  return {.is_lost = now.is_lost,
          .is_request_due = is_request_due(now_us),
          .nodes_without_word = nodes_without_word(),
          .look_again_us = now.look_again_us};
}

void loss_judge::heard(uint32_t node)
{
  if (node_view *view = other(node)) {
    view->is_heard = true;
    view->silent_requests = 0;
  }
}

void loss_judge::holds(uint32_t node, id_entry entry)
{
  heard(node);
  node_view *view = other(node);
  if (view != nullptr && entry == entry_) {
    view->is_missing = false;
    view->has_word = false;
  }
}

bool loss_judge::lacks(uint32_t node, id_entry entry)
{
  heard(node);
  node_view *view = other(node);
  if (view != nullptr && entry == entry_ && request_us_ != 0) {
    view->is_missing = true;
  }
  return entry == entry_;
}

void loss_judge::is_not_ahead(uint32_t node)
{
  node_view *view = other(node);
  if (view != nullptr && view->is_missing) {
    view->has_word = true;
  }
}

bool loss_judge::is_request_due(int64_t now_us) const
{
  return request_us_ == 0 || now_us - request_us_ >= REQUEST_PERIOD_US;
}

uint32_t loss_judge::nodes_without_word() const
{
  uint32_t nodes = 0;
  for (uint32_t i = 0; i < node_count_; ++i) {
    nodes |= nodes_[i].is_missing && !nodes_[i].has_word ? 1u << i : 0;
  }
  return nodes;
}

loss_judge::verdict loss_judge::judge(int64_t now_us) const
{
  if (node_count_ == 1) {
    return {.is_lost = true, .look_again_us = 0};
  }
  if (request_us_ == 0 || !has_quorum_answered()) {
    return {.is_lost = false, .look_again_us = LOOK_PERIOD_US};
  }
  const int64_t idle_since_us = std::max({request_us_, resumed_us_, decided_us_});
  int64_t ready_us = idle_since_us + IDLE_US;
  if (lacking_count() + 1 < node_count_) {
    // The silent nodes may still be heard during the rest of this second.
    ready_us = std::max(ready_us, request_us_ + REQUEST_PERIOD_US);
    if (request_us_ < resumed_us_ || !are_the_rest_silent()) {
      return {.is_lost = false, .look_again_us = LOOK_PERIOD_US};
    }
  }
  if (in_hand_ != 0 || now_us < ready_us) {
    return {.is_lost = false, .look_again_us = std::clamp<int64_t>(ready_us - now_us, 1000, LOOK_PERIOD_US)};
  }
  return {.is_lost = true, .look_again_us = 0};
}

loss_judge::node_view *loss_judge::other(uint32_t node)
{
  return node >= 1 && node <= node_count_ && node != own_node_ ? &nodes_[node - 1] : nullptr;
}

uint32_t loss_judge::lacking_count() const
{
  uint32_t count = 0;
  for (uint32_t i = 0; i < node_count_; ++i) {
    count += is_other(i) && is_lacking(i) ? 1 : 0;
  }
  return count;
}

// Every other node is enough, whatever this one held.
bool loss_judge::has_quorum_answered() const
{
  const uint32_t others = lacking_count();
  return others + 1 == node_count_ || others + (is_held_ ? 0 : 1) >= node_count_ / 2 + 1;
}

bool loss_judge::are_the_rest_silent() const
{
  for (uint32_t i = 0; i < node_count_; ++i) {
    if (is_other(i) && !is_lacking(i) && (nodes_[i].is_heard || nodes_[i].silent_requests + 1 < SILENT_REQUESTS)) {
      return false;
    }
  }
  return true;
}

void loss_judge::forget_answers()
{
  for (node_view &view : nodes_) {
    view.is_missing = false;
    view.has_word = false;
    view.is_heard = false;
  }
}
