// The allocations of the objects that are linked here, the library among them; the linker leads them through __wrap_.

#include <cstdlib>
#include <new>

#include "fake_state.h"

using fake::call;
using fake::has_to_fail;

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);
void *__real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag);

void *__wrap_malloc(size_t size)
{
  return has_to_fail(call::memory) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
  return has_to_fail(call::memory) ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *old, size_t size)
{
  return has_to_fail(call::memory) ? nullptr : __real_realloc(old, size);
}

void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag)
{
  return has_to_fail(call::memory) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
}
