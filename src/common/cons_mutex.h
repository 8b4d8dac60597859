/// Mutex, scoped lock and condition variable of the library. All are statically initialised and trivially
/// destructible, so that process-wide state stays usable for threads that still run during exit(). If a lock or
/// unlock fails, the process ends with exit(1).
#pragma once

#include <pthread.h>

#include <cstdint>

#include "common/thread_safety.h"

/// The order of locks: a thread that holds one takes only locks of a higher rank (listed later). Builds with
/// CONS_CHECK_LOCKS abort with a message on stderr when a thread breaks this rule.
enum class lock_rank : uint8_t {
  lifecycle,       ///< taken with no other lock held
  pull_record,     ///< transfer record of the payload being fetched
  deliver_queue,   ///< held while a payload is delivered
  data_hooks,      ///< held while a deliver hook runs
  forward,         ///< ordered broadcast: waiting identifiers
  propose,         ///< ordered broadcast: the last decision, the proposer's bookkeeping
  deliver,         ///< ordered broadcast: the last delivery, open calls
  register_layer,  ///< table of registers
  reg,             ///< one register
  register_store,  ///< staging buffer of the register files
  payload_files,   ///< names of payload files
  payload_row,     ///< payload table, one sender
  payload_entry,   ///< reference count of one payload
  leaf             ///< no lock is taken while it is held
};

class CONS_CAPABILITY("mutex") cons_mutex
{
public:
  constexpr explicit cons_mutex(lock_rank rank) : rank_(rank) {}
  cons_mutex(const cons_mutex &) = delete;
  cons_mutex &operator=(const cons_mutex &) = delete;

  void lock() CONS_ACQUIRE();
  /// Waits until `end_us` on the monotonic clock at the latest. Returns whether the mutex is now held.
  [[nodiscard]] bool try_lock_until_us(int64_t end_us) CONS_TRY_ACQUIRE(true);
  void unlock() CONS_RELEASE();

private:
  friend class cons_cond;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  lock_rank rank_;
};

struct cons_already_held {
};

/// Holds a mutex for a scope. It may be released and taken again in between.
class CONS_SCOPED_CAPABILITY cons_lock
{
public:
  explicit cons_lock(cons_mutex &mutex) CONS_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  /// Takes over a mutex that try_lock_until_us has locked.
  cons_lock(cons_mutex &mutex, cons_already_held) CONS_REQUIRES(mutex) : mutex_(mutex) {}
  ~cons_lock() CONS_RELEASE()
  {
    if (held_) {
      mutex_.unlock();
    }
  }
  cons_lock(const cons_lock &) = delete;
  cons_lock &operator=(const cons_lock &) = delete;

  void unlock() CONS_RELEASE()
  {
    held_ = false;
    mutex_.unlock();
  }
  void lock() CONS_ACQUIRE()
  {
    mutex_.lock();
    held_ = true;
  }

private:
  cons_mutex &mutex_;
  bool held_ = true;
};

/// Waits may end early: loop on the predicate. Hold the mutex to change a predicate.
class cons_cond
{
public:
  constexpr cons_cond() = default;
  cons_cond(const cons_cond &) = delete;
  cons_cond &operator=(const cons_cond &) = delete;

  void wait(cons_mutex &mutex) CONS_REQUIRES(mutex);
  /// Waits at most `wait_us`, on the monotonic clock.
  void wait_for_us(cons_mutex &mutex, int64_t wait_us) CONS_REQUIRES(mutex);
  void signal();
  void broadcast();
  /// Broadcasts with the mutex held, for a predicate that is a flag of its own.
  void wake_all(cons_mutex &mutex) CONS_EXCLUDES(mutex);

private:
  pthread_cond_t cond_ = PTHREAD_COND_INITIALIZER;
};
