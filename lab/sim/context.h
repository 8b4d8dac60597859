/// What a caught call needs: the parts of the one simulation that this process runs.
#pragma once

#include <functional>

#include "event_log.h"
#include "library_copy.h"
#include "oracle.h"
#include "scheduler.h"
#include "sim_network.h"
#include "sim_node.h"

namespace sim
{

struct context {
  event_log *log = nullptr;
  scheduler *clock = nullptr;
  sim_network *network = nullptr;
  oracle *judge = nullptr;
  std::function<void(sim_node &)> die;  ///< its process dies as node.dies says
};

/// Set before the first thread is made.
inline context sim_context;

/// The process that makes the call.
inline node_run &here()
{
  return *static_cast<node_run *>(sim_context.clock->self().owner);
}

/// A caught call that may be the last one of its process.
inline void caught(const char *what, uint64_t object = 0)
{
  sim_context.clock->step(what, object);
}

/// The calls of libc that the library makes, and what stands in for each.
redirections libc_calls();

}  // namespace sim
