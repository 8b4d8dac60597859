/// libvx_disk_faults.so: a disk that fails on command, for one process. It stands between libvx_cons and the system:
/// open, read, write, rename, unlink and sync on the files in /flashdisk/cons can be made to fail; all else passes.
///
/// Use, in a node's private view (what is preloaded should not reach the launcher of the view):
///   env LD_PRELOAD=.../libvx_disk_faults.so VX_DISK_FAULTS=/path/of/rules kesh run
///   built by g++ with AddressSanitizer: LD_PRELOAD="$(g++ -print-file-name=libasan.so) .../libvx_disk_faults.so"
///   built by g++ with ThreadSanitizer:  LD_PRELOAD="$(g++ -print-file-name=libtsan.so) .../libvx_disk_faults.so"
///   built by clang++ with either:       as without
///
/// The rules are read again whenever the file has changed; replace it by rename. Missing or empty: no faults. Counts
/// begin anew with each reading. One rule per line, # begins a comment line; NAME is a file's name without ".tmp", a
/// shell pattern, or what stands before a dot (rb_reg means rb_reg.7, too).
///   enospc NAME [skip N]            write fails with ENOSPC
///   eio NAME [skip N]               read and write fail with EIO
///   readonly NAME [skip N]          open for writing, rename and unlink fail with EROFS
///   unreadable NAME [skip N]        open for reading fails with EIO
///   cut_write NAME BYTES [skip N]   only the first BYTES reach the file, and write says so
///   lost_write NAME BYTES [skip N]  only the first BYTES reach the file, but write claims all
///   slow_sync MILLISECONDS [NAME]   sync takes so much longer
///   kill_before CALL:NAME N         SIGKILL to the process instead of the N-th such call
///   kill_after CALL:NAME N          SIGKILL right after the N-th such call
/// skip N: the first N calls that the rule fits go well. CALL is open (for writing), open_read, read, write, rename,
/// unlink or sync; the NAME of a sync is that of the rename before it on the same thread, if no other sync was between.
///
/// What was done is told in the file of the rules' name with ".log" appended: "TIME PID CALL NAME RULE", the first time
/// that a rule takes effect, and lines that are no rules. TIME is CLOCK_MONOTONIC in ns.
#pragma once

#include <cstddef>
#include <cstdint>

namespace disk_faults
{

enum class disk_call { open_write, open_read, read, write, rename, unlink, sync, count };

/// What is to become of a call.
struct verdict {
  int error = 0;            ///< errno; 0: carry it out
  size_t bytes = SIZE_MAX;  ///< write at most so many
  bool claim_all = false;   ///< and say that all was written
  uint32_t delay_ms = 0;    ///< before it
  bool kill_after = false;
};

/// Applies the rules as they are now, and counts. Does not return for kill_before. Any thread.
verdict judge(disk_call call, const char *name);

/// Ends the process as kill -9 does.
[[noreturn]] void kill_process();

}  // namespace disk_faults
