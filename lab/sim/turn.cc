#include "turn.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

// What a called function must keep goes onto the stack; the rest its caller has saved. A new stack returns into
// sim_enter, with the body in r12 and its argument in r13.
asm(R"(
.text
.type sim_switch, @function
sim_switch:
  pushq %rbp
  pushq %rbx
  pushq %r12
  pushq %r13
  pushq %r14
  pushq %r15
  movq %rsp, (%rdi)
  movq %rsi, %rsp
  popq %r15
  popq %r14
  popq %r13
  popq %r12
  popq %rbx
  popq %rbp
  ret
.size sim_switch, . - sim_switch

.type sim_enter, @function
sim_enter:
  movq %r13, %rdi
  callq *%r12
  ud2
.size sim_enter, . - sim_enter
)");

extern "C" {
void sim_switch(void **from, void *to);
void sim_enter();
}

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
  if (memory == MAP_FAILED || mprotect(memory, GUARD_SIZE, PROT_NONE) != 0) {
    return false;
  }
  // From the top: two words that keep sim_enter's call aligned, its address, rbp, rbx, r12 to r15.
  auto *const top = reinterpret_cast<void **>(static_cast<char *>(memory) + GUARD_SIZE + STACK_SIZE);
  top[-3] = reinterpret_cast<void *>(sim_enter);
  top[-6] = reinterpret_cast<void *>(body);
  top[-7] = argument;
  stack_ = top - 9;
  return true;
}

void turn::give(turn &next)
{
  if (shares_kernel_thread) {
    const int error = errno;
    sim_switch(&stack_, next.stack_);
    errno = error;
  } else {
    next.wake();
    wait();
  }
}

void turn::end(turn &next)
{
  if (shares_kernel_thread) {
    sim_switch(&stack_, next.stack_);
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
