/// Counts what a process does to its disk, in the file that VX_DISK_COUNTS names; off without that. The file holds a
/// disk_counts, mapped: others may read it at any time, and it outlives the process, whose successor goes on counting.
#pragma once

#include <atomic>
#include <cstdint>

namespace disk_faults
{

/// Numbers as the machine has them.
struct disk_counts {
  std::atomic<uint64_t> syncs;          // sync() and syncfs()
  std::atomic<uint64_t> flushes;        // fsync() and fdatasync() of what lies below /flashdisk
  std::atomic<uint64_t> library_bytes;  // written below /flashdisk/cons
  std::atomic<uint64_t> host_bytes;     // written elsewhere below /flashdisk
};
static_assert(sizeof(disk_counts) == 32);

/// Any thread. If counting is off, of no effect on anything.
disk_counts &counts();

}  // namespace disk_faults
