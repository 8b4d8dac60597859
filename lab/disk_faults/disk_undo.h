/// What a power cut may take away: every change of a file below /flashdisk that is not on disk for certain yet, with
/// what is needed to take it back. vxlab_lib/chaos/power_cut.py does that when the process is dead.
///
/// On if VX_DISK_UNDO names a directory below /flashdisk, such as /flashdisk/.undo, which then holds
///   log        a mapped file, formats below: it outlives a kill, and the next process goes on with it
///   link.SEQ   a hard link to the file that change SEQ took off its name
///   copy.SEQ   the whole file before change SEQ, which overwrote or cut something
///
/// Certain is what POSIX promises. A change that had ended before sync() or syncfs() began is, when that returns;
/// content also by fsync() or fdatasync() of its file, names also by fsync() of their directory. Directories count as
/// certain.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace disk_faults
{

enum class undo_kind : uint32_t { none, create, rename, unlink, data };

/// One change, 256 bytes.
struct undo_slot {
  uint32_t state;  // 0: a free slot; 1: under way, it may have happened or not; 2: done
  undo_kind kind;
  uint64_t sequence;   // order of the changes, from 1
  uint64_t file;       // inode that got or lost its name, or whose content changed; 0: not known yet
  uint64_t replaced;   // rename: inode that lost the new name; 0: none
  uint64_t from, to;   // data: the bytes that changed
  uint32_t had_zeros;  // data: zeros stood there before; if not, and without a copy, the file ended at `from`
  uint32_t has_copy;   // data: see copy.SEQ
  char name[96];       // below /flashdisk; rename: the old name
  char new_name[104];  // rename
};
static_assert(sizeof(undo_slot) == 256);

inline constexpr uint32_t UNDO_SLOTS = 8192;
inline constexpr uint64_t UNDO_MAGIC = 0x31304f444e555856;  // "VXUNDO01" in memory

/// The log: this, then UNDO_SLOTS slots. Numbers as the machine has them.
struct undo_header {
  uint64_t magic;
  uint64_t next_sequence;
  uint64_t not_kept;  // changes that could not be recorded and so count as certain
  uint64_t filler[5];
};
static_assert(sizeof(undo_header) == 64);

/// The system's call itself, to be made once; refers to a function object that outlives it.
class system_call
{
public:
  template <typename function>
  system_call(function &what)  // NOLINT(google-explicit-constructor)
      : what_(&what), make_([](void *object) { return static_cast<ssize_t>((*static_cast<function *>(object))()); })
  {
  }
  ssize_t operator()() const { return make_(what_); }

private:
  void *what_;
  ssize_t (*make_)(void *);
};

/// Each makes the call and returns what it returned, errno included, and records what it changed. Changes are made one
/// at a time, so their order in the log is their order on disk; syncs are not held up. Paths are absolute; what does
/// not lie below /flashdisk is passed on.
ssize_t undo_open(const char *path, int flags, system_call make);
ssize_t undo_rename(const char *from, const char *to, system_call make);
ssize_t undo_unlink(const char *path, system_call make);
/// `offset` below 0: where the descriptor stands.
ssize_t undo_write(int fd, int64_t offset, uint64_t length, system_call make);
/// Returns 0 or, as posix_fallocate(), an error; or -1.
ssize_t undo_reserve(int fd, uint64_t offset, uint64_t length, system_call make);
ssize_t undo_truncate(int fd, uint64_t length, system_call make);
ssize_t undo_sync(system_call make);
/// `directory`: its path; null for a file.
ssize_t undo_fsync(int fd, const char *directory, system_call make);

}  // namespace disk_faults
