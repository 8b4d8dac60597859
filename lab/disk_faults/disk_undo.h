/// What a power cut may undo. Records every change of a file below /flashdisk that is not certainly on disk yet, with
/// what is needed to undo it. vxlab_lib/chaos/power_cut.py undoes changes after the process is dead.
///
/// On if VX_DISK_UNDO names a directory below /flashdisk, such as /flashdisk/.undo. That directory then holds
///   log        a mapped file in the format below; it survives a kill, and the next process goes on with it
///   link.SEQ   a hard link to the file that lost its name by change SEQ
///   copy.SEQ   the bytes that change SEQ overwrote or cut off
///
/// A change is certain when POSIX promises that it is on disk. The return of sync() or syncfs() makes every change
/// certain that had ended before the call. fsync() or fdatasync() of a file does so for its content, and fsync() of a
/// directory for the names in it. Creating or removing a directory counts as certain at once.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace disk_faults
{

enum class undo_kind : uint32_t { none, create, rename, unlink, data };

/// One change, 256 bytes.
struct undo_slot {
  uint32_t state;  // 0: free slot; 1: under way, may have happened or not; 2: done
  undo_kind kind;
  uint64_t sequence;   // order of the changes, from 1
  uint64_t file;       // inode that got or lost its name, or whose content changed; 0: unknown yet
  uint64_t replaced;   // rename: inode that lost the new name; 0: none
  uint64_t from, to;   // data: the bytes that changed
  uint32_t had_zeros;  // data: these bytes were zeros before; if 0 and has_copy is 0, the file ended at `from`
  uint32_t has_copy;   // data: copy.SEQ exists; if it has less than to - from bytes, the file ended with them
  char name[96];       // below /flashdisk; rename: the old name
  char new_name[104];  // rename
};
static_assert(sizeof(undo_slot) == 256);

inline constexpr uint32_t UNDO_SLOTS = 8192;
inline constexpr uint64_t UNDO_MAGIC = 0x31304f444e555856;  // "VXUNDO01" in memory

/// The log begins with this header; UNDO_SLOTS slots follow. Numbers have the machine's byte order.
struct undo_header {
  uint64_t magic;
  uint64_t next_sequence;
  uint64_t not_kept;  // changes that could not be recorded, and so count as certain
  uint64_t filler[5];
};
static_assert(sizeof(undo_header) == 64);

/// The system call to be made, once. Refers to a function object that must outlive it.
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

/// Each makes the call, records what it changed and returns its result, with errno. Changes are made one at a time, so
/// their order in the log is their order on disk. Syncs do not wait for each other or block changes. Paths are
/// absolute. A change of a path that is not below /flashdisk is made but not recorded. Any thread.
ssize_t undo_open(const char *path, int flags, system_call make);
ssize_t undo_rename(const char *from, const char *to, system_call make);
ssize_t undo_unlink(const char *path, system_call make);
/// `offset` below 0 means the descriptor's own position.
ssize_t undo_write(int fd, int64_t offset, uint64_t length, system_call make);
/// Returns the result of posix_fallocate() (0 or an error number) or of fallocate() (0, or -1 with errno).
ssize_t undo_reserve(int fd, uint64_t offset, uint64_t length, system_call make);
ssize_t undo_truncate(int fd, uint64_t length, system_call make);
ssize_t undo_sync(system_call make);
/// `directory` is the path if `fd` is a directory, else null.
ssize_t undo_fsync(int fd, const char *directory, system_call make);

}  // namespace disk_faults
