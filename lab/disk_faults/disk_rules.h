/// libvx_disk_faults.so: a disk that fails on command, for one process. It stands between the process and the C
/// library. open, read, write, rename and unlink of the files in /flashdisk/cons, and of the host's own in /flashdisk,
/// can be made to fail, and sync can be slowed. All other calls pass.
///
/// Use it in a node's private view (the launcher of the view should not be preloaded):
///   env LD_PRELOAD=.../libvx_disk_faults.so VX_DISK_FAULTS=/path/of/rules kesh run
///   built by g++ with AddressSanitizer: LD_PRELOAD="$(g++ -print-file-name=libasan.so) .../libvx_disk_faults.so"
///   built by g++ with ThreadSanitizer:  LD_PRELOAD="$(g++ -print-file-name=libtsan.so) .../libvx_disk_faults.so"
///   built by clang++ with either:       as without
///
/// The rules are read again whenever the file has changed; replace it by rename. A missing or empty file means no
/// faults. Each reading resets the counts. There is one rule per line; # begins a comment line. NAME is a file's name
/// without ".tmp", a shell pattern, or the part of a name before a dot (rb_reg matches rb_reg.7). The host's files have
/// "host/" before their names.
///   enospc NAME [skip N]            write fails with ENOSPC
///   eio NAME [skip N]               read and write fail with EIO
///   readonly NAME [skip N]          open for writing, write, rename and unlink fail with EROFS
///   unreadable NAME [skip N]        open for reading fails with EIO
///   cut_write NAME BYTES [skip N]   only the first BYTES reach the file, and write says so
///   slow_sync MILLISECONDS [NAME]   sync takes so much longer
///   kill_before CALL:NAME N         SIGKILL to the process instead of the N-th such call
///   kill_after CALL:NAME N          SIGKILL right after the N-th such call
/// skip N: the first N calls that match the rule succeed. CALL is open (for writing), open_read, read, write, rename,
/// unlink or sync. The NAME of a sync is that of the last rename on the same thread, if no sync came in between.
/// fsync and fdatasync of one of the host's files are syncs with its name.
///
/// The log is the rules file's name with ".log" appended. It gets a line "TIME PID CALL NAME RULE" when a rule takes
/// effect for the first time, and a line for each line that is not a rule. TIME is CLOCK_MONOTONIC in ns.
#pragma once

#include <cstddef>
#include <cstdint>

namespace disk_faults
{

enum class disk_call { open_write, open_read, read, write, rename, unlink, sync, count };

/// What happens to a call.
struct verdict {
  int error = 0;            ///< errno of a call that fails; 0: carry it out
  size_t bytes = SIZE_MAX;  ///< write at most this many
  uint32_t delay_ms = 0;    ///< before the call
  bool kill_after = false;
};

/// Counts the call and applies the current rules to it. Does not return for kill_before. Any thread.
verdict judge(disk_call call, const char *name);

/// Ends the process as kill -9 does.
[[noreturn]] void kill_process();

}  // namespace disk_faults
