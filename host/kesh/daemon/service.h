/// The running daemon as its parts share it: the library's life cycle, the store, what is submitted, the counters.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "cluster/cluster_link.h"
#include "daemon/heard.h"
#include "daemon/observer.h"
#include "guarded.h"
#include "settings.h"
#include "store/store.h"
#include "store/store_upkeep.h"
#include "submit/batcher.h"
#include "submit/waiting_client.h"
#include "unique_fd.h"

namespace kesh
{

using steady_time = std::chrono::steady_clock::time_point;

/// What became of the states that arrived, and of the store before them.
struct state_counters {
  std::atomic<uint64_t> kept = 0;
  std::atomic<uint64_t> extended = 0;
  std::atomic<uint64_t> replaced = 0;
  std::atomic<uint64_t> put_aside = 0;  ///< stores kept under another name since the daemon began
  std::atomic<uint64_t> rejoined = 0;   ///< times that the store did not fit the library's records
  std::atomic<uint64_t> bytes = 0;      ///< of the last state that was made or taken
};

/// How long new logs hold the order up, as the node sees it that makes their states. Any thread.
class roll_over_clock
{
public:
  struct times {
    uint64_t count;
    uint64_t sum_us;
  };

  void state_begins() { begun_ns_ = steady_time::clock::now().time_since_epoch().count(); }
  /// A state was taken: the log that begins with it goes on. No effect if this node made none.
  void log_begins()
  {
    if (const int64_t begun = begun_ns_.exchange(0); begun != 0) {
      sum_us_ += static_cast<uint64_t>(steady_time::clock::now().time_since_epoch().count() - begun) / 1000;
      count_++;
    }
  }
  /// What was begun will not be seen to end.
  void forget() { begun_ns_ = 0; }
  times read() const { return {.count = count_, .sum_us = sum_us_}; }

private:
  std::atomic<int64_t> begun_ns_ = 0;
  std::atomic<uint64_t> count_ = 0;
  std::atomic<uint64_t> sum_us_ = 0;
};

class service
{
public:
  service(const settings &configured, observer &watcher);

  /// Opens the store and begins to take submissions. EXIT_OK, else `error` says why.
  int open_store(std::string &error);
  /// Ends what open_store began. After close_library.
  void close_store();
  /// Brings the library up, with our hooks. False if it does not come up.
  bool open_library();
  /// Cleans the library up, before the daemon ends.
  void close_library();

  /// Starts the protocol. EXIT_OK, also if it runs; else `error` says why. Any thread.
  int start(std::string &error) PLATFORM_EXCLUDES(lifecycle_lock_);
  /// Stops the protocol; the daemon goes on, and start() may follow. Any thread.
  void leave() PLATFORM_EXCLUDES(lifecycle_lock_);
  /// Cleans the library up and brings it up again; starts the protocol if it ran. As start(). Any thread.
  int reinit(std::string &error) PLATFORM_EXCLUDES(lifecycle_lock_);
  /// Stops the protocol and ends every wait; nothing can be started after it.
  void shut_down() PLATFORM_EXCLUDES(lifecycle_lock_);
  /// For the main thread: whether the library left the cluster by itself, which is logged once, and whether this node
  /// has to leave it.
  void watch() PLATFORM_EXCLUDES(lifecycle_lock_) PLATFORM_EXCLUDES(verdict_lock_);

  bool stopping() const { return stopping_; }

  /// Asks the main thread to end the daemon. Safe in a hook, as wake is, which makes it look at everything anew.
  void request_stop() { stop_requested_ = true, wake(); }
  void wake() const;
  bool stop_requested() const { return stop_requested_; }
  int wake_fd() const { return wake_fd_.get(); }

  const settings configured;
  const uint64_t life;  ///< ns since 1970 at the start of this process
  const steady_time started_at = std::chrono::steady_clock::now();
  observer &watcher;
  store lines;
  state_counters states;
  roll_over_clock roll_overs;
  heard messages;
  std::unique_ptr<batcher> submissions;      ///< from open_store on
  std::unique_ptr<waiting_clients> waiting;  ///< clients of the daemon itself, as submissions
  std::unique_ptr<cluster_link> link;        ///< as submissions

private:
  int start_locked(std::string &error) PLATFORM_REQUIRES(lifecycle_lock_);
  void stop_locked() PLATFORM_REQUIRES(lifecycle_lock_);
  void note_isolation() PLATFORM_REQUIRES(lifecycle_lock_);
  int distribute(std::string_view payload);
  link_functions make_link_functions();
  bool order_no_op();
  int restart(const link_functions::stopped_work &work, std::string &error) PLATFORM_EXCLUDES(lifecycle_lock_);
  node_role role() const;

  platform::unique_fd wake_fd_;
  store_upkeep upkeep_;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> stop_requested_ = false;
  platform::mutex lifecycle_lock_;  // one start or stop at a time
  bool was_active_ PLATFORM_GUARDED_BY(lifecycle_lock_) = false;
  bool was_started_ PLATFORM_GUARDED_BY(lifecycle_lock_) = false;
  std::atomic<node_role> role_ = node_role::stopped;  // as left by the last start or stop; never leader
  platform::mutex verdict_lock_;
  std::string must_leave_ PLATFORM_GUARDED_BY(verdict_lock_);  // why; empty: it need not
  std::string isolated_ PLATFORM_GUARDED_BY(verdict_lock_);    // " since TIME: LINE"; empty: it is not
};

}  // namespace kesh
