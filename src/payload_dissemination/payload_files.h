/// Durable payloads: which payloads are on disk, and when their files go. A file is garbage as soon as the table does
/// not name its payload: a thread of its own removes it, since that may take seconds, and never at stop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "service/library_thread.h"

void *payload_files_thread(void *);

struct payload_files_state {
  std::atomic<uint32_t> last_state_size{0};

  /// Held while a file gets its name or is removed, together with the look at the table that decides it.
  cons_mutex name_lock{lock_rank::payload_files};

  // Touched by start and stop only.
  library_thread thread{"payload-file-thread", payload_files_thread};
};
inline constinit payload_files_state payload_files;

/// With durable payloads: fills the table with what the files hold, headers only; removes what is foreign. Without:
/// removes all files. The table may hold payloads of an earlier run. Returns 0 or -1, with a line.
int payload_files_load(bool is_on, std::function<void()> progress);

/// Starts (false: it cannot be created) and ends the thread.
bool payload_files_start();
void payload_files_stop();

/// Whether the payload is on this node's disk; saves it if it is not, once a second at most. True also without durable
/// payloads. False if it cannot be saved, another thread is saving it, or the table does not have it. Hold no lock.
bool payload_files_make_durable(id_entry entry);

/// Removes every file, with durable payloads or without. Returns 0 or -1.
int payload_files_reset();
