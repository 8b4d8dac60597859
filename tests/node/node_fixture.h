/// The whole library as one node of a cluster, driven through vx_cons.h by a small host application, with the other
/// nodes played. Every case runs with one dispatcher per channel and with one for all.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "fake_host.h"
#include "files.h"
#include "peers.h"
#include "vx_cons.h"

using wire::bytes;
using wire::entry;
using wire::operator+;

/// What the host application has been given: the lines of data type 0, in order. Its state is those lines.
class application
{
public:
  std::vector<std::string> lines() const;
  size_t count() const { return lines().size(); }
  bool has(const std::vector<std::string> &expected) const;  ///< waits
  /// Deliver hooks wait while held.
  void hold() { is_held_ = true; }
  void hold_snapshots() { is_snapshot_held_ = true; }
  void let_go() { is_held_ = is_snapshot_held_ = false; }
  int states() const { return states_; }
  bool is_held() const { return is_held_; }
  int deliveries_begun() const { return begun_; }
  int snapshots_begun() const { return snapshots_begun_; }
  /// What must not happen: a state other than the lines it replaces, a hook beside a snapshot.
  std::vector<std::string> faults() const;

  void reset();
  void deliver(const std::string &text, uint32_t full_state);
  std::string snapshot();

private:
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
  std::vector<std::string> faults_;
  std::atomic<bool> is_held_{false};
  std::atomic<bool> is_snapshot_held_{false};
  std::atomic<int> begun_{0};
  std::atomic<int> snapshots_begun_{0};
  std::atomic<int> states_{0};
  std::atomic<int> inside_{0};
};
inline application app;

class node : public ::testing::TestWithParam<fake::dispatch>
{
protected:
  node();
  ~node() override;

  /// Brings the library up as node `own` of `node_count`, without starting it.
  void configure(uint32_t own, uint32_t node_count);
  /// The same, started; a leader from the beginning, or a follower.
  void start_as(const std::string &state, uint32_t own = 1, uint32_t node_count = 3);
  void end_cluster();  ///< before the next one in the same test; files stay
  static int configure_call(uint32_t own, uint32_t node_count);
  static void init();

  /// Files as an earlier life has left them; after configure.
  static void set_decided(uint32_t number, const wire::log &entries, entry last_delivered);
  static std::pair<uint32_t, wire::log> decided();
  static bool wait_decided(uint32_t number);

  static std::future<int> submit(const std::string &text);
  static size_t open_calls();
  static int result(std::future<int> &call);  ///< -99 if it does not return
  /// Stops within the promised time.
  static void stop_in_time();
  /// Becomes leader and waits for it. `then` comes after the file is written.
  static bool lead(const fake::condition &then = [] { return true; });
  static bool step_down();    ///< and follower again
  static bool wait_joined();  ///< until no thread of the library is left
  /// What isolation and stop leave: not active, channels 3 and 6 open, nothing queued.
  static void expect_stopped();
  static wire::log payload_log(size_t count, entry state, uint8_t sender, uint32_t first_id);

  std::unique_ptr<fake::peers> others;

private:
  /// A thread that submits. It is joined, since what libcrypto keeps for a thread goes only when that has ended.
  struct caller {
    std::thread thread;
    std::future<void> has_ended;
  };
  static void join_callers();
  static inline std::mutex callers_lock;  ///< tests submit from several threads
  static inline std::vector<caller> callers;
};

inline bytes message(const std::string &text)
{
  return wire::payload(0, {{0, wire::text(text)}});
}
