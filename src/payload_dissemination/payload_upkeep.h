/// What is to be done about payload files. The table and those that read a file note it; the payload-file-thread and
/// the pull-thread do it.
#pragma once

#include <atomic>

#include "common/cons_mutex.h"

struct payload_upkeep_state {
  std::atomic<bool> is_on{false};         // durable payloads; set by start
  std::atomic<bool> needs_repair{false};  // a file was found damaged: the pull-thread fetches it again

  cons_mutex lock{lock_rank::leaf};
  cons_cond cond;  // something may be garbage, or stop
  bool has_garbage CONS_GUARDED_BY(lock) = false;
};
inline constinit payload_upkeep_state payload_upkeep;

/// Something left the table. Any thread, any lock but leaves.
void payload_upkeep_collect();
