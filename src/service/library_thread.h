/// A thread of the library: created through the host, with a small stack, and joined exactly once.
#pragma once

#include <pthread.h>

#include <cstddef>

inline constexpr size_t LIBRARY_STACK_SIZE = 0x10000;

struct library_thread {
  const char *name;
  void *(*body)(void *);
  pthread_t handle{};
  bool is_created = false;
};

/// Returns false, with a log line that names `function`, if the host cannot create the thread.
bool library_thread_create(library_thread &thread, const char *function);

/// Does nothing if the thread does not exist.
void library_thread_join(library_thread &thread);
