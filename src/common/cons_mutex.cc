#include "common/cons_mutex.h"

#include <time.h>

#include <cerrno>
#include <cstdlib>

#include "common/monotonic_clock.h"

#ifdef CONS_CHECK_LOCKS
#include <cstdio>
#endif

#if defined(__SANITIZE_THREAD__)
#define CONS_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CONS_THREAD_SANITIZER
#endif
#endif

namespace
{

timespec time_of_us(int64_t us)
{
  constexpr int64_t US_PER_S = 1000000;
  return {.tv_sec = us / US_PER_S, .tv_nsec = us % US_PER_S * 1000};
}

int lock_until(pthread_mutex_t &mutex, int64_t end_us)
{
#ifdef CONS_THREAD_SANITIZER
  // ThreadSanitizer does not know pthread_mutex_clocklock.
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t now_us = int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
  const timespec end = time_of_us(now_us + end_us - monotonic_us());
  return pthread_mutex_timedlock(&mutex, &end);
#else
  const timespec end = time_of_us(end_us);
  return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &end);
#endif
}

#ifdef CONS_CHECK_LOCKS
constexpr int HELD_MAX = 16;
thread_local lock_rank held[HELD_MAX];
thread_local int held_count;

void check_order_before_lock(lock_rank rank)
{
  for (int i = 0; i < held_count; ++i) {
    if (held[i] >= rank) {
      std::fprintf(stderr, "lock order: rank %d is taken while rank %d is held\n", static_cast<int>(rank),
                   static_cast<int>(held[i]));
      std::abort();
    }
  }
  held[held_count++] = rank;
}

void note_unlock(lock_rank rank)
{
  for (int i = held_count - 1; i >= 0; --i) {
    if (held[i] == rank) {
      for (int j = i; j + 1 < held_count; ++j) {
        held[j] = held[j + 1];
      }
      --held_count;
      return;
    }
  }
}
#else
void check_order_before_lock(lock_rank) {}
void note_unlock(lock_rank) {}
#endif

}  // namespace

void cons_mutex::lock()
{
  check_order_before_lock(rank_);
  if (pthread_mutex_lock(&mutex_) != 0) {
    std::exit(1);
  }
}

bool cons_mutex::try_lock_until_us(int64_t end_us)
{
  check_order_before_lock(rank_);
  const int error = lock_until(mutex_, end_us);
  if (error == 0) {
    return true;
  }
  if (error != ETIMEDOUT) {
    std::exit(1);
  }
  note_unlock(rank_);
  return false;
}

void cons_mutex::unlock()
{
  note_unlock(rank_);
  if (pthread_mutex_unlock(&mutex_) != 0) {
    std::exit(1);
  }
}

void cons_cond::wait(cons_mutex &mutex)
{
  pthread_cond_wait(&cond_, &mutex.mutex_);
}

void cons_cond::wait_for_us(cons_mutex &mutex, int64_t wait_us)
{
  const timespec deadline = time_of_us(monotonic_us() + wait_us);
  pthread_cond_clockwait(&cond_, &mutex.mutex_, CLOCK_MONOTONIC, &deadline);
}

void cons_cond::signal()
{
  pthread_cond_signal(&cond_);
}

void cons_cond::broadcast()
{
  pthread_cond_broadcast(&cond_);
}

void cons_cond::wake_all(cons_mutex &mutex)
{
  cons_lock lock(mutex);
  broadcast();
}
