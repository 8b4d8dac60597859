/// Work to be done on payload files. The table notes it. The payload-file-thread removes files, and the pull-thread
/// repairs damaged ones.
#pragma once

#include <atomic>

#include "common/cons_mutex.h"

struct payload_upkeep_state {
  std::atomic<bool> is_on{false};         // durable payloads; set before each start
  std::atomic<bool> needs_repair{false};  // a file was found damaged: the pull-thread fetches it again

  cons_mutex lock{lock_rank::leaf};
  cons_cond cond;  // a file may be garbage, or stop
  bool has_garbage CONS_GUARDED_BY(lock) = false;
};
inline constinit payload_upkeep_state payload_upkeep;

/// An entry left the table: wakes the payload-file-thread. Any thread, any lock but leaves.
inline void payload_upkeep_collect()
{
  if (payload_upkeep.is_on) {
    cons_lock lock(payload_upkeep.lock);
    payload_upkeep.has_garbage = true;
    payload_upkeep.cond.signal();
  }
}
