/// Durable payloads: which payloads are on disk, and when their files are removed. A file is garbage as soon as its
/// payload is not in the table. A thread removes garbage, since that may take seconds; it removes none at stop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "service/library_thread.h"

void *payload_files_thread(void *);

/// Bytes of the disk that no ordinary payload takes: for the records, and the states of the next logs. 0 without
/// durable payloads. Any thread.
uint64_t payload_files_reserve();

struct payload_files_state {
  std::atomic<uint32_t> last_state_size{0};

  /// Held while a file is renamed to its final name, and from the table lookup that makes it garbage until its removal.
  cons_mutex name_lock{lock_rank::payload_files};

  // Touched by start and stop only.
  library_thread thread{"payload-file-thread", payload_files_thread};
};
inline constinit payload_files_state payload_files;

/// With durable payloads: fills the table with what the files hold, headers only; removes what is foreign. Without:
/// removes all files. The table may hold payloads of an earlier run. Returns 0; with durable payloads -1, with a line,
/// if the files cannot be listed.
int payload_files_load(bool is_on, const std::function<void()> &progress);

/// Start and end the thread. Without durable payloads there is none. False: it cannot be created.
bool payload_files_start();
void payload_files_stop();

/// Returns whether the payload is on this node's disk; saves it if it is not, at most once a second. Always true
/// without durable payloads. False if it cannot be saved, another thread is saving it, or the table does not have it.
/// Blocks during the save: hold no lock.
bool payload_files_make_durable(id_entry entry);
