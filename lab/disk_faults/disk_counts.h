/// Counts what a process does to its disk, in the file that VX_DISK_COUNTS names; off if that is not set. The file is a
/// mapped disk_counts. Other processes may read it at any time. It outlives the process, and the next one goes on
/// counting.
#pragma once

#include <atomic>
#include <cstdint>

namespace disk_faults
{

/// Numbers have the machine's byte order.
struct disk_counts {
  std::atomic<uint64_t> syncs;          // sync() and syncfs()
  std::atomic<uint64_t> flushes;        // fsync() and fdatasync() of files and directories below /flashdisk
  std::atomic<uint64_t> library_bytes;  // written below /flashdisk/cons
  std::atomic<uint64_t> host_bytes;     // written elsewhere below /flashdisk
};
static_assert(sizeof(disk_counts) == 32);

/// The counters. If counting is off, returns some that no one reads. Any thread.
disk_counts &counts();

}  // namespace disk_faults
