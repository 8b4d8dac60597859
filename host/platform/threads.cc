// kesh_pthread_create.
#include "vx_host.h"

#include <algorithm>
#include <climits>

namespace
{
#if defined(VX_SANITIZED)
// Instrumented frames are several times larger, and a sanitizer keeps its own data on the stack too.
constexpr size_t STACK_FACTOR = 64;
#else
constexpr size_t STACK_FACTOR = 1;
#endif
}  // namespace

int kesh_pthread_create(pthread_t *thread, const pthread_attr_t *attr, size_t stack_size, void *(*start)(void *),
                        void *arg)
{
  pthread_attr_t own;
  int result = pthread_attr_init(&own);
  if (result != 0) {
    return result;
  }
  int detach_state = PTHREAD_CREATE_JOINABLE;
  if (attr != nullptr) {
    result = pthread_attr_getdetachstate(attr, &detach_state);
  }
  if (result == 0) {
    result = pthread_attr_setdetachstate(&own, detach_state);
  }
  if (result == 0) {
    result =
        pthread_attr_setstacksize(&own, std::max(stack_size * STACK_FACTOR, static_cast<size_t>(PTHREAD_STACK_MIN)));
  }
  if (result == 0) {
    result = pthread_create(thread, &own, start, arg);
  }
  pthread_attr_destroy(&own);
  return result;
}
