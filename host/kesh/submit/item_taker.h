/// Who submits items, and what it hears of them. What takes the items is an item_taker; `batcher` is the real one.
///
/// Each item that was taken gets exactly one result, at its deadline at the latest, unless its client has left.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "items/payload.h"

namespace kesh
{

enum class item_fate : uint8_t {
  applied,        ///< it stands in the journal
  not_submitted,  ///< it never left this node and never will
  unknown,        ///< it was handed over at least once, so it may be applied later, but at most once
};

struct item_result {
  item_fate fate = item_fate::unknown;
  uint32_t attempts = 0;    ///< how often it was handed over
  uint64_t number = 0;      ///< the client's own, from new_item
  uint64_t sequence = 0;    ///< of the tag; 0 if it was never handed over
  uint64_t line = 0;        ///< of the journal, if applied
  uint64_t time_us = 0;     ///< from push to this result
  size_t size = 0;          ///< of the text
  const char *reason = "";  ///< why it was not applied; a literal
};

class result_receiver
{
public:
  /// Called with no lock of the item_taker held, so it may push; it must not wait. Several threads at once may call it,
  /// also for one client: senders, the clock, the one that delivers (a hook, so little stack), and whoever stops.
  /// A call that had begun may still arrive after close_client: client ids are never used twice, so look it up.
  virtual void on_results(uint64_t client, std::span<const item_result> results) noexcept = 0;

protected:
  ~result_receiver() = default;
};

struct client_options {
  result_receiver *receiver = nullptr;  ///< lives until the item_taker has been stopped and joined
  std::chrono::nanoseconds timeout{0};  ///< from push to the deadline of an item
  bool stops_at_failure = false;        ///< once an item was not applied, those that wait are not submitted
};

struct new_item {
  uint64_t number = 0;
  std::string text;
  item_kind kind = item_kind::line;
};

struct push_verdict {
  size_t taken = 0;     ///< items taken, from the front
  std::string refusal;  ///< why the next was not: the limit and its value
};

class item_taker
{
public:
  /// Returns the client's id; 0 if it is refused, and `refusal` says why.
  virtual uint64_t open_client(const client_options &options, std::string &refusal) = 0;
  /// Moves the texts of what it takes out of `items`. Their results may arrive before this returns.
  virtual push_verdict push(uint64_t client, std::span<new_item> items) = 0;
  /// What waits is removed, what is under way goes on without a result.
  virtual void close_client(uint64_t client) = 0;

protected:
  ~item_taker() = default;
};

}  // namespace kesh
