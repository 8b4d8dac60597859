#include "turn.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace sim
{

namespace
{

// The library asks for 64 KiB. What is caught runs on the same stack, and events run on whichever it is.
constexpr size_t STACK_SIZE = 512 * 1024;
constexpr size_t GUARD_SIZE = 4096;

}  // namespace

bool turn::create(void (*body)(void *), void *argument)
{
  body_ = body;
  argument_ = argument;
  if (!shares_kernel_thread) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, STACK_SIZE);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t handle;
    const int result = pthread_create(&handle, &attributes, kernel_thread, this);
    pthread_attr_destroy(&attributes);
    return result == 0;
  }
  void *const memory = mmap(nullptr, GUARD_SIZE + STACK_SIZE, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED || mprotect(memory, GUARD_SIZE, PROT_NONE) != 0 || getcontext(&stack_) != 0) {
    return false;
  }
  stack_.uc_link = nullptr;
  stack_.uc_stack.ss_sp = static_cast<char *>(memory) + GUARD_SIZE;
  stack_.uc_stack.ss_size = STACK_SIZE;
  // makecontext passes ints.
  const auto self = reinterpret_cast<uintptr_t>(this);
  makecontext(&stack_, reinterpret_cast<void (*)()>(stack_begin), 2, static_cast<unsigned>(self >> 32),
              static_cast<unsigned>(self));
  return true;
}

void turn::stack_begin(unsigned high, unsigned low)
{
  auto *const own = reinterpret_cast<turn *>(uintptr_t{high} << 32 | low);
  own->body_(own->argument_);
}

void turn::give(turn &next)
{
  if (shares_kernel_thread) {
    const int error = errno;
    swapcontext(&stack_, &next.stack_);
    errno = error;
  } else {
    next.wake();
    wait();
  }
}

void turn::end(turn &next)
{
  if (shares_kernel_thread) {
    setcontext(&next.stack_);
  } else {
    next.wake();
  }
}

void *turn::kernel_thread(void *argument)
{
  auto *const own = static_cast<turn *>(argument);
  own->wait();
  own->body_(own->argument_);
  return nullptr;
}

void turn::wake()
{
  word_.store(1, std::memory_order_release);
  syscall(SYS_futex, &word_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void turn::wait()
{
  while (word_.exchange(0, std::memory_order_acquire) == 0) {
    syscall(SYS_futex, &word_, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
  }
}

}  // namespace sim
