/// Wakes one thread of this process, or waits to be woken. A word and a futex: the hand-over is what a simulated step
/// costs most.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace sim
{

class baton
{
public:
  void give()
  {
    word_.store(1, std::memory_order_release);
    syscall(SYS_futex, &word_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }
  void take()
  {
    while (word_.exchange(0, std::memory_order_acquire) == 0) {
      syscall(SYS_futex, &word_, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
  }

private:
  std::atomic<uint32_t> word_{0};
};

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

}  // namespace sim
