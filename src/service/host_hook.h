/// A hook of the host must not call the library: it runs with locks held that the call may need. Builds with
/// CONS_CHECK_LOCKS abort with a message on stderr at such a call, even if it would not have deadlocked this time.
#pragma once

#ifdef CONS_CHECK_LOCKS

/// The scope of one call of a host's hook, on the calling thread.
class host_hook_call
{
public:
  host_hook_call();
  ~host_hook_call();
  host_hook_call(const host_hook_call &) = delete;
  host_hook_call &operator=(const host_hook_call &) = delete;
};

/// Aborts the process if this thread is inside such a call.
void check_outside_host_hooks(const char *function);

#else

class [[maybe_unused]] host_hook_call
{
};

inline void check_outside_host_hooks(const char *) {}

#endif
