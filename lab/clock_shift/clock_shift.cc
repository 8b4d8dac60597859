/// libvx_clock_shift.so: the wall clock of one process, set forward or back while it runs.
///
/// Use: env LD_PRELOAD=.../libvx_clock_shift.so VX_CLOCK_SHIFT=/path/of/shift kesh run
/// The file holds one number of 8 bytes, seconds, which the process sees on top of the machine's wall clock; it may be
/// rewritten in place at any time. Missing at the first call: no shift until the process ends. Monotonic clocks keep
/// their time.
///
/// Covered: time, gettimeofday, clock_gettime(CLOCK_REALTIME) and deadlines of pthread_cond_timedwait. As a condition
/// does not tell its clock, a deadline far from the unshifted wall clock is taken for one of the shifted one. A wait
/// that has begun before a step keeps its duration; a real step forward would end it early.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace
{

std::atomic<int64_t> no_shift{0};

const std::atomic<int64_t> *map_shift()
{
  const char *path = getenv("VX_CLOCK_SHIFT");
  const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0 || status.st_size < static_cast<off_t>(sizeof(int64_t))) {
    if (fd >= 0) {
      close(fd);
    }
    return &no_shift;
  }
  void *mapped = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  return mapped == MAP_FAILED ? &no_shift : static_cast<const std::atomic<int64_t> *>(mapped);
}

int64_t shift_s()
{
  static const std::atomic<int64_t> *const shift = map_shift();
  return shift->load(std::memory_order_relaxed);
}

// The system's call itself: the C library's comes back to us.
timespec machine_clock(clockid_t clock)
{
  timespec now{};
  syscall(SYS_clock_gettime, clock, &now);
  return now;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *now) noexcept
{
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    now->tv_sec += shift_s();
  }
  return static_cast<int>(result);
}

int gettimeofday(timeval *__restrict now, void *__restrict) noexcept
{
  const timespec machine = machine_clock(CLOCK_REALTIME);
  now->tv_sec = machine.tv_sec + shift_s();
  now->tv_usec = machine.tv_nsec / 1000;
  return 0;
}

time_t time(time_t *to) noexcept
{
  const time_t now = machine_clock(CLOCK_REALTIME).tv_sec + shift_s();
  if (to != nullptr) {
    *to = now;
  }
  return now;
}

int pthread_cond_timedwait(pthread_cond_t *__restrict cond, pthread_mutex_t *__restrict mutex,
                           const timespec *__restrict deadline)
{
  using function = int(pthread_cond_t *, pthread_mutex_t *, const timespec *);
  static function *const wait =
      reinterpret_cast<function *>(dlvsym(RTLD_NEXT, "pthread_cond_timedwait", "GLIBC_2.3.2"));
  constexpr int64_t NEAR_S = 100'000'000;  // further from the wall clock than that is a monotonic deadline
  timespec shifted = *deadline;
  if (std::llabs(shifted.tv_sec - machine_clock(CLOCK_REALTIME).tv_sec) < NEAR_S) {
    shifted.tv_sec -= shift_s();
  }
  return wait(cond, mutex, &shifted);
}

}  // extern "C"
