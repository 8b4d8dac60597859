#include "common/cons_mutex.h"

#include <time.h>

#include <cstdlib>

#include "common/monotonic_clock.h"

#ifdef CONS_CHECK_LOCKS
#include <cstdio>
#endif

namespace
{

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
  constexpr int64_t US_PER_S = 1000000;
  const int64_t end_us = monotonic_us() + wait_us;
  const timespec deadline = {.tv_sec = end_us / US_PER_S, .tv_nsec = end_us % US_PER_S * 1000};
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
