/// Who is inside a hook of the host must not call back in: the hook holds locks that the call may need. Builds with
/// CONS_CHECK_LOCKS stop with a message on stderr when one does, also where it would have gone well this time.
#pragma once

#ifdef CONS_CHECK_LOCKS

/// The scope of one call of a host's hook, on the thread that makes it.
class host_hook_call
{
public:
  host_hook_call();
  ~host_hook_call();
  host_hook_call(const host_hook_call &) = delete;
  host_hook_call &operator=(const host_hook_call &) = delete;
};

/// Stops the process if this thread is inside such a call.
void check_outside_host_hooks(const char *function);

#else

class [[maybe_unused]] host_hook_call
{
};

inline void check_outside_host_hooks(const char *) {}

#endif
