/// A private view of the machine for one node: its own /flashdisk and /run, its own System V queues.
#pragma once

#include <stdexcept>
#include <string>
#include <sys/types.h>

namespace node_view
{

/// What stands in the way, with the system's reason and, where there is one, a way out.
struct view_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct view_options {
  std::string flashdisk_dir;  ///< becomes /flashdisk; empty: a tmpfs of its own
  std::string run_dir;        ///< becomes /run; empty: a tmpfs of its own
  bool net_new = false;       ///< a network of its own, with nothing but a loopback that is up
  pid_t net_pid = 0;          ///< network and queues of that process instead; 0: stay in the caller's
};

/// Moves the calling process into the view; it must have one thread. Throws view_error.
void enter(const view_options &options);

/// Moves the calling process into the view (files, queues and network) that process `pid` lives in.
void join(pid_t pid);

}  // namespace node_view
