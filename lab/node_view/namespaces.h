/// The namespaces below a view. One thread only: the kernel refuses the rest.
#pragma once

#include <string>
#include <sys/types.h>

namespace node_view
{

/// Throws view_error: "what: reason of errno".
[[noreturn]] void fail(const std::string &what);

/// New namespaces (flags of unshare). Without the right to make them, in a new user namespace whose root is the caller.
void unshare_namespaces(int flags);

/// Goes into those namespaces of a process (flags of setns), and into its user namespace where it has another one.
void join_namespaces(pid_t pid, int flags);

/// Loopback up, and fit for multicast.
void bring_loopback_up();

}  // namespace node_view
