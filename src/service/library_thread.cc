#include "service/library_thread.h"

#include <cstdio>

#include "vx_host.h"

// Bytes of a thread's name that the kernel keeps for ps and debuggers, the final zero included.
constexpr size_t TASK_NAME_SIZE = 16;

bool library_thread_create(library_thread &thread, const char *function)
{
  if (kesh_pthread_create(&thread.handle, nullptr, LIBRARY_STACK_SIZE, thread.body, nullptr) != 0) {
    vx_log("%s(): Cannot create %s.\n", function, thread.name);
    return false;
  }
  thread.is_created = true;
  char name[TASK_NAME_SIZE];
  std::snprintf(name, sizeof name, "%s", thread.name);
  pthread_setname_np(thread.handle, name);
  return true;
}

void library_thread_join(library_thread &thread)
{
  if (thread.is_created) {
    pthread_join(thread.handle, nullptr);
    thread.is_created = false;
  }
}
