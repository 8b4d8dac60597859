/// Submits items: an outbox with a lock, two threads that send and a clock.
///
/// The lock is a leaf: nothing of the injected functions and no receiver is called with it.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <thread>

#include "guarded.h"
#include "submit/outbox.h"

namespace kesh
{

struct applied_item {
  uint64_t sequence = 0;
  uint64_t line = 0;  ///< of the journal; of a repeated item the first one's
};

/// What the batcher needs of the daemon. A sender thread calls them, with no lock held.
struct batcher_hooks {
  /// vx_cons_distribute: blocks; 0 or -1. An exception counts as -1.
  std::function<int(std::string_view payload)> distribute;
  std::function<bool()> is_active;  ///< throws nothing
  /// The line of an item of this life that distribute delivered without a call of applied(), as in a snapshot. If
  /// it is not known, or at an exception, the item's fate is unknown.
  std::function<std::optional<uint64_t>(uint64_t sequence)> find_line;
};

class batcher final : public item_taker
{
public:
  /// `life` is that of the payloads. Starts the threads; throws std::system_error if one cannot be started.
  batcher(uint8_t origin, uint64_t life, const submit_limits &limits, batcher_hooks hooks);
  /// stop() and join().
  ~batcher();

  uint64_t open_client(const client_options &options, std::string &refusal) override PLATFORM_EXCLUDES(lock_);
  push_verdict push(uint64_t client, std::span<new_item> items) override PLATFORM_EXCLUDES(lock_);
  void close_client(uint64_t client) override PLATFORM_EXCLUDES(lock_);

  /// Who applied a payload says so before the call of distribute returns; items of other origins and lives are passed
  /// over. Calls receivers.
  void applied(uint8_t origin, uint64_t life, std::span<const applied_item> items) PLATFORM_EXCLUDES(lock_);
  /// The answer of is_active() may have changed. Without it a change is noticed within ACTIVITY_CHECK.
  void activity_changed() PLATFORM_EXCLUDES(lock_);
  /// Ends what waits, and returns at once. Call it before the library is stopped, which ends what is under way.
  void stop() PLATFORM_EXCLUDES(lock_);
  /// After stop(), one thread: waits until the calls of distribute have returned. Deadlines hold meanwhile.
  void join() PLATFORM_EXCLUDES(lock_);

  submit_counts counts() PLATFORM_EXCLUDES(lock_);
  /// How long the oldest item without a result waits; 0: there is none.
  std::chrono::seconds oldest_wait() PLATFORM_EXCLUDES(lock_);

private:
  static constexpr std::chrono::milliseconds ACTIVITY_CHECK{200};

  void send_loop() PLATFORM_EXCLUDES(lock_);
  void send(const outbox::taken &out) PLATFORM_EXCLUDES(lock_);
  void ask_for_lines(size_t slot) PLATFORM_EXCLUDES(lock_);
  /// Waits for a payload, or for results that expired meanwhile. False once stopped.
  bool next(bool is_active, uint64_t activity, outbox::step &found, result_list &results) PLATFORM_EXCLUDES(lock_);
  uint64_t activity() PLATFORM_EXCLUDES(lock_);
  void clock_loop() PLATFORM_EXCLUDES(lock_);
  bool wait_for_deadline(result_list &results) PLATFORM_EXCLUDES(lock_);
  /// Wakes a sender if a change made more possible.
  void wake_sender(outbox::readiness before) PLATFORM_REQUIRES(lock_);

  const uint8_t origin_;
  const uint64_t life_;
  const batcher_hooks hooks_;
  platform::mutex lock_;
  platform::condition work_;   // senders: more is ready, the activity changed, or stopped
  platform::condition clock_;  // the next deadline is sooner, or the senders have ended
  outbox outbox_ PLATFORM_GUARDED_BY(lock_);
  uint64_t activity_ PLATFORM_GUARDED_BY(lock_) = 0;  // counts its changes
  size_t senders_ PLATFORM_GUARDED_BY(lock_) = 0;     // still running
  std::array<std::thread, 2> sender_threads_;         // constructor and join() only, as the clock's
  std::thread clock_thread_;
};

}  // namespace kesh
