#include "service/host_hook.h"

#ifdef CONS_CHECK_LOCKS

#include <cstdio>
#include <cstdlib>

namespace
{

thread_local bool inside_host_hook;

}  // namespace

host_hook_call::host_hook_call()
{
  inside_host_hook = true;
}

host_hook_call::~host_hook_call()
{
  inside_host_hook = false;
}

void check_outside_host_hooks(const char *function)
{
  if (inside_host_hook) {
    std::fprintf(stderr, "%s() is called from a hook\n", function);
    std::abort();
  }
}

#endif
