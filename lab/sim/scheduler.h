/// Threads of which exactly one runs, and the time that they see.
///
/// A simulated thread waits for its turn (turn.h). At each caught call the running one asks here; a draw decides
/// whether another goes on. What is not caught (memory, arithmetic) cannot be interrupted. When no thread can run, the
/// clock jumps to the next deadline. Nothing here needs a lock: only the thread that has its turn is inside.
///
/// Two ways to choose:
///   uniform  now and then (how often is drawn once per run) one of those that can run, each as likely
///   PCT      each thread has a drawn priority, the highest one that can run goes on; at a few drawn steps the running
///            thread falls behind all others (Burckhardt et al., "A randomized scheduler with probabilistic guarantees
///            of finding bugs", 2010)
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "draw.h"
#include "event_log.h"
#include "turn.h"

namespace sim
{

/// The threads of one process of a node. It is killed or paused as a whole.
struct process {
  uint32_t node = 0;
  bool is_killed = false;
  bool is_paused = false;
  uint8_t *storage = nullptr;          ///< thread-local storage of its copy of the library
  std::vector<uint8_t> first_storage;  ///< what that holds in a new thread
};

inline constexpr int64_t NEVER = INT64_MAX;

class thread
{
public:
  uint32_t number = 0;  ///< in the order of creation, from 1
  process *owner = nullptr;
  std::string name;
  std::function<void()> body;
  bool has_ended = false;

private:
  friend class scheduler;
  enum class state { ready, blocked, gone };

  state state_ = state::ready;
  class scheduler *home_ = nullptr;
  size_t ready_at_ = 0;              // index among the ready ones
  const void *waits_for_ = nullptr;  // an address: only compared
  uint64_t wait_number_ = 0;         // so that an old deadline wakes nobody
  bool is_timed_out_ = false;
  bool is_held_ = false;
  thread *mutex_owner_ = nullptr;  // of the mutex that it waits for without a deadline
  int64_t priority_ = 0;
  std::vector<uint8_t> storage_;  // the library's, while another thread runs
  turn turn_;
};

enum class policy { uniform, pct };

class scheduler
{
public:
  /// `cores`: as many steps as that take a microsecond.
  scheduler(uint64_t seed, policy how, uint32_t cores, event_log &log);

  /// The thread that runs.
  thread &self() const { return *running_; }
  int64_t now_us() const { return now_us_; }
  uint64_t steps() const { return steps_; }
  uint64_t hand_overs() const { return hand_overs_; }

  /// Makes the calling thread of the process the first simulated one.
  void adopt_main();
  thread &create(process *owner, const std::string &name, std::function<void()> body);
  thread *find(uint32_t number) const
  {
    return number <= threads_.size() && number != 0 ? threads_[number - 1].get() : nullptr;
  }
  /// Threads that have not ended and whose name does not begin so.
  size_t living(const process &owner, const char *but) const;

  /// A caught call: others may run before this returns.
  void step(const char *what, uint64_t object = 0);
  /// Waits until wake(address) or the deadline. False: the deadline has passed.
  bool wait(const void *address, int64_t deadline_us, const char *what);
  /// The same for a mutex: finds out if its owner waits for the caller.
  bool wait_for_owner(const void *mutex, uint32_t owner, int64_t deadline_us);
  void sleep_until(int64_t deadline_us, const char *what) { wait(nullptr, deadline_us, what); }
  void sleep_for(int64_t us, const char *what) { sleep_until(now_us_ + us, what); }
  /// All that wait for the address can run again.
  void wake_all(const process *owner, const void *address);
  /// One of them, drawn. False: there is none.
  bool wake_one(const process *owner, const void *address);

  /// `action` is called at that time, on whichever thread runs then. It must not wait.
  void at(int64_t when_us, std::function<void()> action);

  void kill(process &owner);
  void pause(process &owner);
  void resume(process &owner);
  /// A drawn thread of the process, its name not beginning with `but`, does not run until let_go(), as one that a busy
  /// machine gives no core. Null: there is none.
  thread *hold_one(const process &owner, const std::string &but, draw &choices);
  void let_go(thread &one) { one.is_held_ = false; }

  /// Called when a thread can be shown to wait for ever, or nothing can happen any more.
  std::function<void(const std::string &why)> on_dead_end;

private:
  struct deadline {
    int64_t when_us;
    uint64_t order;
    thread *who;  // null: an action
    uint64_t wait_number;
    size_t action;
    bool operator>(const deadline &other) const
    {
      return when_us != other.when_us ? when_us > other.when_us : order > other.order;
    }
  };

  static void thread_main(void *argument);
  bool runs(const thread &one) const
  {
    return one.owner == nullptr || (!one.owner->is_killed && !one.owner->is_paused && !one.is_held_);
  }
  void make_ready(thread &one);
  void leave_ready(thread &one);
  void fire_due();
  thread *choose(bool self_may);
  thread *choose_uniform();
  thread *choose_by_priority();
  void change_points();
  static void keep_storage(thread &one);
  static void bring_storage(const thread &one);
  /// Another goes on; returns when the turn comes back.
  void hand_to(thread &next);
  /// Until somebody can run.
  thread &next_after_block();
  void end_self();

  event_log &log_;
  draw draw_;
  policy policy_;
  uint64_t switch_once_in_;
  uint32_t cores_;
  std::vector<uint64_t> change_at_;
  int64_t lowest_priority_ = 0;

  std::vector<std::unique_ptr<thread>> threads_;
  std::vector<thread *> ready_;
  std::vector<thread *> blocked_;
  std::priority_queue<deadline, std::vector<deadline>, std::greater<>> deadlines_;
  std::vector<std::function<void()>> actions_;
  std::vector<size_t> free_actions_;
  uint64_t order_ = 0;
  int64_t now_us_ = 0;
  uint64_t steps_ = 0;
  uint64_t hand_overs_ = 0;
  thread *running_ = nullptr;
};

}  // namespace sim
