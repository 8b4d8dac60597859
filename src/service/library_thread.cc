#include "service/library_thread.h"

#include "vx_host.h"

bool library_thread_create(library_thread &thread, const char *function)
{
  if (kesh_pthread_create(&thread.handle, nullptr, LIBRARY_STACK_SIZE, thread.body, nullptr) != 0) {
    vx_log("%s(): Cannot create %s.\n", function, thread.name);
    return false;
  }
  thread.is_created = true;
  return true;
}

void library_thread_join(library_thread &thread)
{
  if (thread.is_created) {
    pthread_join(thread.handle, nullptr);
    thread.is_created = false;
  }
}
