/// Who goes on: the running thread waits, another one continues where it waited.
///
/// A kernel thread that wakes another and sleeps costs some microseconds, most of what a simulated step costs. So a
/// simulated thread is a stack of its own, and one kernel thread goes from stack to stack. Of thread-local storage,
/// which is then common, only the library's and errno have to be kept apart. A debugger sees one thread so, and a
/// sanitizer is confused: for them each simulated thread can be a kernel thread. The execution is the same.
#pragma once

#include <ucontext.h>

#include <atomic>
#include <cstdint>

namespace sim
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool CAN_SHARE_KERNEL_THREAD = false;
#elif defined(__has_feature)
inline constexpr bool CAN_SHARE_KERNEL_THREAD = !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
inline constexpr bool CAN_SHARE_KERNEL_THREAD = true;
#endif

/// Set before the first thread is made.
inline bool shares_kernel_thread = CAN_SHARE_KERNEL_THREAD;

class turn
{
public:
  /// Makes a thread that calls `body(argument)` when its turn comes. False: the machine gives none.
  bool create(void (*body)(void *), void *argument);
  /// The caller waits, and `next` goes on. Returns when the caller's turn comes again.
  void give(turn &next);
  /// The caller is over, and `next` goes on. With kernel threads this returns, and so must `body`.
  void end(turn &next);

private:
  static void stack_begin(unsigned high, unsigned low);
  static void *kernel_thread(void *argument);
  void wake();
  void wait();

  void (*body_)(void *) = nullptr;
  void *argument_ = nullptr;
  ucontext_t stack_{};             // where it stands
  std::atomic<uint32_t> word_{0};  // with kernel threads: 1 = its turn has come
};

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

}  // namespace sim
