/// What goes out next: the rules of submission, without threads, clock or I/O. `batcher` gives it those.
///
/// - At most two payloads are under way. The second goes out only behind the newest, so that no payload that is still
///   open has more than one of this node behind it: those who drop repeated items remember two payloads of a node.
///   It waits until it is full, or until all of the first is applied: payloads are ordered one after the other, so two
///   halves take twice the time of one.
/// - The items of a client are in at most one payload under way, in their order.
/// - Clients take turns, TURN_SIZE bytes each, until a payload is full. An item beyond its size goes alone.
/// - The next payload waits for as many clients as the last two served, if they were several, at most an eighth of the
///   time that the last one took. If it waited for those of the last one only, or for less time than the results of a
///   payload need to bring their clients back, two halves of the clients would take turns for ever.
/// - If a payload fails, what is open of it waits until nothing is under way, then goes out alone, in one payload, with
///   the next attempt. Nothing new goes out before that payload has ended well.
/// - No item goes out once its deadline has passed.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "submit/item_taker.h"
#include "submit/latencies.h"
#include "submit/result_list.h"

namespace kesh
{

struct submit_limits {
  size_t clients = 8192;
  size_t items = 1 << 18;      ///< open in all
  size_t bytes = 512 << 20;    ///< of texts in memory
  size_t client_items = 4096;  ///< open of one client
  size_t client_bytes = 80 << 20;
  size_t payload_bytes = 1 << 20;
  size_t payload_items = 8192;
};

struct submit_counts {
  uint64_t open = 0;  ///< without a result
  uint64_t applied = 0;
  uint64_t not_submitted = 0;
  uint64_t unknown = 0;
  uint64_t refused = 0;   ///< not taken: a limit, or a line of the client before it failed
  uint64_t again = 0;     ///< attempts of items after the first
  uint64_t payloads = 0;  ///< handed over
  latencies times;        ///< of those applied
};

class outbox
{
public:
  using time_point = std::chrono::steady_clock::time_point;
  using duration = std::chrono::steady_clock::duration;
  static constexpr time_point NEVER = time_point::max();
  static constexpr size_t TURN_SIZE = 64 << 10;
  static constexpr int HOLD_SHARE = 8;  ///< of the time from a payload's way out to its last result
  static constexpr std::chrono::microseconds HOLD_MIN{300};
  static constexpr std::chrono::milliseconds HOLD_MAX{25};
  /// Before what failed is repeated: it may have failed at once, for want of memory.
  static constexpr std::chrono::milliseconds REPEAT_PAUSE{20};

  struct taken {
    size_t slot = 0;
    payload content;  ///< its bytes stay valid until ended(slot)
  };
  struct step {
    std::optional<taken> out;
    time_point look_again = NEVER;  ///< if nothing goes out: when something may, though nothing happens until then
  };
  enum class readiness { nothing, soon, now };

  outbox(uint8_t origin, uint64_t life, const submit_limits &limits) : origin_(origin), life_(life), limits_(limits) {}

  uint64_t open_client(const client_options &options, std::string &refusal);
  push_verdict push(uint64_t client, std::span<new_item> items, time_point now);
  void close_client(uint64_t client);

  /// `is_active`: whether the node can take a payload now.
  step take(time_point now, bool is_active);
  /// Whether take() on an active node would give something.
  [[nodiscard]] readiness ready() const;
  [[nodiscard]] bool has_waiting() const { return !ready_.empty() || again_open_ > 0; }
  void applied(uint64_t sequence, uint64_t line, time_point now);
  /// Sequences of a payload under way that have no result.
  [[nodiscard]] std::vector<uint64_t> unanswered(size_t slot) const;
  /// The call for the payload returned: `delivered`, or its fate is not known.
  void ended(size_t slot, bool delivered, time_point now);
  void expire(time_point now);
  /// No item expires before this.
  [[nodiscard]] time_point next_deadline() const { return next_deadline_; }
  /// Nothing goes out from now on. What is under way goes on.
  void stop(time_point now);
  [[nodiscard]] bool is_stopped() const { return stopped_; }

  /// The results since the last call.
  result_list take_results();
  [[nodiscard]] submit_counts counts() const { return counts_; }
  /// Of the items without a result, when the oldest came; NEVER: there is none.
  [[nodiscard]] time_point oldest() const;

private:
  struct client;
  struct open_item {
    enum class state : uint8_t { open, expired, applied };

    client *owner = nullptr;  // not valid once applied
    state now = state::open;
    item_kind kind = item_kind::line;
    uint32_t attempts = 0;
    uint64_t number = 0;
    uint64_t sequence = 0;
    time_point pushed_at;
    std::string text;
  };
  struct client {
    uint64_t id = 0;
    client_options options;
    std::deque<open_item> waiting;
    size_t items = 0;               // without a result
    size_t bytes = 0;               // of those
    size_t under_way = 0;           // in a payload, and not applied
    uint64_t payload = UINT64_MAX;  // ordinal of the last one that it had a turn in
    bool is_ready = false;
    bool is_gone = false;
    bool has_failed = false;
  };
  struct batch {
    bool is_under_way = false;
    uint64_t ordinal = 0;
    time_point sent_at;
    std::vector<open_item> items;  // by sequence
    size_t bytes = 0;              // of their texts
    size_t not_applied = 0;
  };

  std::string refusal(const client &from, size_t size) const;
  void make_ready(client &from);
  void unready(client &from);
  /// Gives the item its result. The caller removes it.
  void close(open_item &one, item_fate fate, uint64_t line, const char *reason, time_point now);
  void refuse_waiting(client &from, const char *reason, time_point now);
  /// An item without a result, or expired, leaves its payload.
  void release(client &owner);
  void erase_if_gone(client &one);
  static time_point deadline(const open_item &one) { return one.pushed_at + one.owner->options.timeout; }
  void expire_waiting(client &from, time_point now);
  /// Returns how many were open and are so no more.
  size_t expire_sent(std::vector<open_item> &items, time_point now);
  void drop_repeat_if_closed();
  bool needs_hold() const { return recent_clients_ > 1 && ready_.size() < recent_clients_; }
  bool has_room() const;
  bool has_worth_beside(const batch &first) const;
  void fill(std::vector<open_item> &items);
  /// Takes the client's turn. False if the payload is full.
  bool take_turn(client &from, std::vector<open_item> &items, size_t &used);
  void fill_again(std::vector<open_item> &items);
  taken send(size_t slot, time_point now);

  const uint8_t origin_;
  const uint64_t life_;
  const submit_limits limits_;
  std::unordered_map<uint64_t, std::unique_ptr<client>> clients_;
  uint64_t last_client_ = 0;
  size_t open_clients_ = 0;
  std::deque<client *> ready_;  // have items that wait and none under way, by turn
  std::array<batch, 2> slots_;
  std::vector<open_item> again_;  // of failed payloads, by sequence
  size_t again_open_ = 0;
  time_point again_at_;
  bool is_repeating_ = false;  // the payload under way is a repeat
  uint64_t last_sequence_ = 0;
  uint64_t last_ordinal_ = 0;
  size_t last_clients_ = 0;    // in the last payload
  size_t recent_clients_ = 0;  // in the last two
  time_point hold_until_ = NEVER;
  duration hold_time_ = HOLD_MIN;
  time_point next_deadline_ = NEVER;
  size_t bytes_ = 0;
  bool was_active_ = true;  // at the last take()
  bool stopped_ = false;
  submit_counts counts_;
  result_list results_;
};

}  // namespace kesh
