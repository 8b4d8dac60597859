#include "disk_undo.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "guarded.h"

namespace disk_faults
{

namespace
{

using platform::lock_scope;

constexpr char ROOT[] = "/flashdisk/";
constexpr size_t ROOT_LENGTH = sizeof ROOT - 1;
constexpr size_t LOG_SIZE = sizeof(undo_header) + UNDO_SLOTS * sizeof(undo_slot);
constexpr size_t HOLES_MAX = 16;

enum state : uint32_t { FREE, UNDER_WAY, DONE };

/// Bytes that were reserved and have not been written since.
struct hole {
  uint64_t file = 0;
  uint64_t from = 0, to = 0;
};

struct undo_book {
  platform::mutex lock;
  const char *directory PLATFORM_GUARDED_BY(lock) = nullptr;  // null: not looked up yet; empty: off
  undo_header *header PLATFORM_GUARDED_BY(lock) = nullptr;
  undo_slot *slots PLATFORM_GUARDED_BY(lock) = nullptr;
  std::array<uint32_t, UNDO_SLOTS> used PLATFORM_GUARDED_BY(lock) = {};  // indices, in the order of their sequences
  size_t used_count PLATFORM_GUARDED_BY(lock) = 0;
  uint32_t next_free PLATFORM_GUARDED_BY(lock) = 0;        // where the search for a free slot begins
  uint64_t last_sync_began PLATFORM_GUARDED_BY(lock) = 0;  // the last sync does not cover changes from this sequence on
  std::array<hole, HOLES_MAX> holes PLATFORM_GUARDED_BY(lock) = {};
  size_t next_hole PLATFORM_GUARDED_BY(lock) = 0;
};
constinit undo_book book;

// Direct system calls: this library replaces those of the C library.
int raw_open(const char *path, int flags)
{
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, 0600));
}

bool raw_lstat(const char *path, struct stat &found)
{
  return syscall(SYS_newfstatat, AT_FDCWD, path, &found, AT_SYMLINK_NOFOLLOW) == 0;
}

void raw_unlink(const char *path)
{
  syscall(SYS_unlinkat, AT_FDCWD, path, 0);
}

void map_log() PLATFORM_REQUIRES(book.lock)
{
  const char *directory = getenv("VX_DISK_UNDO");
  book.directory = "";
  if (directory == nullptr || strncmp(directory, ROOT, ROOT_LENGTH) != 0) {
    return;
  }
  char path[PATH_MAX];
  snprintf(path, sizeof path, "%s/log", directory);
  syscall(SYS_mkdirat, AT_FDCWD, directory, 0700);
  const int fd = raw_open(path, O_RDWR | O_CREAT);
  void *log = MAP_FAILED;
  if (fd >= 0 && syscall(SYS_ftruncate, fd, LOG_SIZE) == 0) {
    log = mmap(nullptr, LOG_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  if (log == MAP_FAILED) {
    fprintf(stderr, "%s: cannot be mapped: %s\n", path, strerror(errno));
    abort();
  }
  syscall(SYS_close, fd);
  book.directory = directory;
  book.header = static_cast<undo_header *>(log);
  book.slots = reinterpret_cast<undo_slot *>(book.header + 1);
  if (book.header->magic != UNDO_MAGIC) {
    book.header->next_sequence = 1;
    book.header->magic = UNDO_MAGIC;
  }
  for (uint32_t i = 0; i < UNDO_SLOTS; i++) {
    if (book.slots[i].state != FREE) {
      book.used[book.used_count++] = i;
    }
  }
  const undo_slot *slots = book.slots;
  std::sort(book.used.begin(), book.used.begin() + book.used_count,
            [slots](uint32_t one, uint32_t other) { return slots[one].sequence < slots[other].sequence; });
}

bool is_on() PLATFORM_REQUIRES(book.lock)
{
  if (book.directory == nullptr) {
    map_log();
  }
  return *book.directory != '\0';
}

void beside_log(char (&path)[PATH_MAX], const char *what, const undo_slot &slot) PLATFORM_REQUIRES(book.lock)
{
  snprintf(path, sizeof path, "%s/%s.%llu", book.directory, what, static_cast<unsigned long long>(slot.sequence));
}

/// Returns false if the path is not below the root or its name does not fit.
bool put_name(char *name, size_t size, const char *path)
{
  return strncmp(path, ROOT, ROOT_LENGTH) == 0 &&
         static_cast<size_t>(snprintf(name, size, "%s", path + ROOT_LENGTH)) < size;
}

/// Returns null, and counts the change as not kept, if no slot is free.
undo_slot *new_slot(undo_kind kind) PLATFORM_REQUIRES(book.lock)
{
  if (book.used_count == UNDO_SLOTS) {
    book.header->not_kept++;
    return nullptr;
  }
  while (book.slots[book.next_free].state != FREE) {
    book.next_free = (book.next_free + 1) % UNDO_SLOTS;
  }
  undo_slot &slot = book.slots[book.next_free];
  slot = {};
  slot.kind = kind;
  slot.sequence = book.header->next_sequence++;
  book.used[book.used_count++] = book.next_free;
  return &slot;
}

/// The slot is complete: the change may begin.
void begin(undo_slot *slot)
{
  if (slot != nullptr) {
    __atomic_store_n(&slot->state, static_cast<uint32_t>(UNDER_WAY), __ATOMIC_RELEASE);
  }
}

void free_slot(undo_slot &slot) PLATFORM_REQUIRES(book.lock)
{
  __atomic_store_n(&slot.state, static_cast<uint32_t>(FREE), __ATOMIC_RELEASE);
  char path[PATH_MAX];
  if (slot.kind == undo_kind::unlink || slot.replaced != 0) {
    beside_log(path, "link", slot);
    raw_unlink(path);
  }
  if (slot.has_copy != 0) {
    beside_log(path, "copy", slot);
    raw_unlink(path);
  }
}

/// Frees all slots for which `is_certain` returns true.
template <typename predicate>
void free_slots(predicate is_certain) PLATFORM_REQUIRES(book.lock)
{
  size_t kept = 0;
  for (size_t i = 0; i < book.used_count; i++) {
    undo_slot &slot = book.slots[book.used[i]];
    if (is_certain(slot)) {
      free_slot(slot);
    } else {
      book.used[kept++] = book.used[i];
    }
  }
  book.used_count = kept;
}

void end(undo_slot *slot, bool succeeded) PLATFORM_REQUIRES(book.lock)
{
  if (slot == nullptr) {
    return;
  }
  if (succeeded) {
    __atomic_store_n(&slot->state, static_cast<uint32_t>(DONE), __ATOMIC_RELEASE);
    return;
  }
  const int error = errno;
  free_slots([slot](const undo_slot &one) { return &one == slot; });
  errno = error;
}

void forget_holes(uint64_t file) PLATFORM_REQUIRES(book.lock)
{
  for (hole &one : book.holes) {
    one = one.file == file ? hole{} : one;
  }
}

void add_hole(uint64_t file, uint64_t from, uint64_t to) PLATFORM_REQUIRES(book.lock)
{
  if (from < to) {
    book.holes[book.next_hole] = {file, from, to};
    book.next_hole = (book.next_hole + 1) % HOLES_MAX;
  }
}

/// Returns whether these bytes are reserved and not written. From now on they count as written.
bool takes_of_hole(uint64_t file, uint64_t from, uint64_t to) PLATFORM_REQUIRES(book.lock)
{
  for (hole &one : book.holes) {
    if (one.file == file && one.from <= from && to <= one.to) {
      const hole whole = one;
      one = {};
      add_hole(file, whole.from, from);
      add_hole(file, to, whole.to);
      return true;
    }
  }
  return false;
}

/// Gives a second name to the file that is about to lose this one. Returns false if that fails.
bool keep_link(undo_slot &slot, const char *path) PLATFORM_REQUIRES(book.lock)
{
  char link[PATH_MAX];
  beside_log(link, "link", slot);
  return syscall(SYS_linkat, AT_FDCWD, path, AT_FDCWD, link, 0) == 0;
}

bool keep_copy(undo_slot &slot, int source, uint64_t from, uint64_t to) PLATFORM_REQUIRES(book.lock)
{
  char path[PATH_MAX];
  beside_log(path, "copy", slot);
  slot.has_copy = 1;
  const int target = raw_open(path, O_WRONLY | O_CREAT | O_TRUNC);
  auto done = static_cast<off_t>(from);
  while (target >= 0 && static_cast<uint64_t>(done) < to &&
         sendfile(target, source, &done, to - static_cast<uint64_t>(done)) > 0) {
  }
  syscall(SYS_close, target);
  return static_cast<uint64_t>(done) == to;
}

/// An incomplete slot is useless: frees it and counts the change as not kept.
undo_slot *unless_incomplete(undo_slot *slot, bool is_complete) PLATFORM_REQUIRES(book.lock)
{
  if (!is_complete) {
    book.header->not_kept++;
    end(slot, false);
    return nullptr;
  }
  return slot;
}

/// Makes a slot for a change of content. `copied` is a descriptor to read the old content from, or -1 to keep none.
undo_slot *new_data_slot(const struct stat &before, uint64_t from, uint64_t to, bool had_zeros, int copied)
    PLATFORM_REQUIRES(book.lock)
{
  undo_slot *slot = new_slot(undo_kind::data);
  if (slot != nullptr) {
    slot->file = before.st_ino;
    slot->from = from;
    slot->to = to;
    slot->had_zeros = had_zeros ? 1 : 0;
    if (copied >= 0) {
      const uint64_t end = std::min(to, static_cast<uint64_t>(before.st_size));
      slot = unless_incomplete(slot, keep_copy(*slot, copied, from, end));
    }
  }
  return slot;
}

/// Returns the newest change of this file if it is a write that ended at `from` and no sync has begun since; else null.
undo_slot *continued_slot(uint64_t file, uint64_t from, bool had_zeros) PLATFORM_REQUIRES(book.lock)
{
  for (size_t i = book.used_count; i > 0; i--) {
    undo_slot &slot = book.slots[book.used[i - 1]];
    if (slot.file != file) {
      continue;
    }
    const bool goes_on = slot.kind == undo_kind::data && slot.state == DONE && slot.has_copy == 0 && slot.to == from &&
                         slot.had_zeros == (had_zeros ? 1U : 0U) && slot.sequence >= book.last_sync_began;
    return goes_on ? &slot : nullptr;
  }
  return nullptr;
}

/// Returns a descriptor for reading an open file, even if that one is open for writing only.
int reopen(int fd)
{
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  return raw_open(path, O_RDONLY);
}

undo_slot *slot_of_write(const struct stat &before, int fd, uint64_t from, uint64_t length) PLATFORM_REQUIRES(book.lock)
{
  const auto size = static_cast<uint64_t>(before.st_size);
  const bool had_zeros = takes_of_hole(before.st_ino, from, from + length);
  if (from >= size || had_zeros) {
    undo_slot *slot = continued_slot(before.st_ino, from, had_zeros);
    return slot != nullptr ? slot : new_data_slot(before, had_zeros ? from : size, from + length, had_zeros, -1);
  }
  const int source = reopen(fd);
  undo_slot *slot = new_data_slot(before, from, from + length, false, source);
  syscall(SYS_close, source);
  return slot;
}

/// Whether the name is directly in the directory; both are relative to the root.
bool lies_in(const char *name, const char *directory)
{
  const char *slash = strrchr(name, '/');
  const size_t length = slash != nullptr ? static_cast<size_t>(slash - name) : 0;
  return strlen(directory) == length && strncmp(name, directory, length) == 0;
}

uint64_t sync_begins()
{
  const lock_scope scope(book.lock);
  if (!is_on()) {
    return 0;
  }
  book.last_sync_began = book.header->next_sequence;
  return book.last_sync_began;
}

}  // namespace

ssize_t undo_open(const char *path, int flags, system_call make)
{
  const lock_scope scope(book.lock);
  char name[sizeof undo_slot::name];
  if ((flags & (O_CREAT | O_TRUNC)) == 0 || !is_on() || !put_name(name, sizeof name, path)) {
    return make();
  }
  struct stat before;
  undo_slot *slot = nullptr;
  const bool is_there = raw_lstat(path, before);
  if (!is_there && (flags & O_CREAT) != 0) {
    slot = new_slot(undo_kind::create);
    if (slot != nullptr) {
      memcpy(slot->name, name, sizeof name);
    }
  } else if (is_there && (flags & O_TRUNC) != 0 && before.st_size > 0) {
    const int source = raw_open(path, O_RDONLY);
    slot = new_data_slot(before, 0, static_cast<uint64_t>(before.st_size), false, source);
    syscall(SYS_close, source);
  }
  begin(slot);
  const ssize_t fd = make();
  struct stat after;
  if (slot != nullptr && slot->kind == undo_kind::create && fd >= 0 && fstat(static_cast<int>(fd), &after) == 0) {
    slot->file = after.st_ino;
    // The inode number is reused: forget the changes of the earlier file, which is certainly gone.
    free_slots([&after](const undo_slot &one) { return one.kind == undo_kind::data && one.file == after.st_ino; });
  }
  end(slot, fd >= 0);
  return fd;
}

ssize_t undo_rename(const char *from, const char *to, system_call make)
{
  const lock_scope scope(book.lock);
  if (!is_on()) {
    return make();
  }
  undo_slot *slot = new_slot(undo_kind::rename);
  struct stat moved;
  struct stat replaced;
  if (slot != nullptr) {
    bool is_complete = put_name(slot->name, sizeof slot->name, from) &&
                       put_name(slot->new_name, sizeof slot->new_name, to) && raw_lstat(from, moved);
    if (is_complete) {
      slot->file = moved.st_ino;
      forget_holes(moved.st_ino);
      if (raw_lstat(to, replaced)) {
        slot->replaced = replaced.st_ino;
        is_complete = keep_link(*slot, to);
      }
    }
    slot = unless_incomplete(slot, is_complete);
  }
  begin(slot);
  const ssize_t result = make();
  end(slot, result == 0);
  return result;
}

ssize_t undo_unlink(const char *path, system_call make)
{
  const lock_scope scope(book.lock);
  struct stat before;
  if (!is_on() || !raw_lstat(path, before)) {
    return make();
  }
  undo_slot *slot = new_slot(undo_kind::unlink);
  if (slot != nullptr) {
    slot->file = before.st_ino;
    forget_holes(before.st_ino);
    const bool is_named = put_name(slot->name, sizeof slot->name, path);
    slot = unless_incomplete(slot, is_named && keep_link(*slot, path));
  }
  begin(slot);
  const ssize_t result = make();
  end(slot, result == 0);
  return result;
}

ssize_t undo_write(int fd, int64_t offset, uint64_t length, system_call make)
{
  const lock_scope scope(book.lock);
  struct stat before;
  if (!is_on() || fstat(fd, &before) != 0 || length == 0) {
    return make();
  }
  if (offset < 0) {
    const bool appends = (fcntl(fd, F_GETFL) & O_APPEND) != 0;
    offset = appends ? before.st_size : lseek(fd, 0, SEEK_CUR);
  }
  const auto from = static_cast<uint64_t>(offset);
  undo_slot *slot = slot_of_write(before, fd, from, length);
  const bool is_continued = slot != nullptr && slot->state == DONE;
  if (is_continued) {
    slot->to = from + length;
  } else {
    begin(slot);
  }
  const ssize_t written = make();
  if (slot != nullptr && (written > 0 || is_continued)) {
    slot->to = from + static_cast<uint64_t>(std::max<ssize_t>(written, 0));
  }
  if (!is_continued) {
    end(slot, written > 0);
  }
  return written;
}

ssize_t undo_reserve(int fd, uint64_t offset, uint64_t length, system_call make)
{
  const lock_scope scope(book.lock);
  struct stat before;
  if (!is_on() || fstat(fd, &before) != 0 || offset + length <= static_cast<uint64_t>(before.st_size)) {
    return make();
  }
  undo_slot *slot = new_data_slot(before, static_cast<uint64_t>(before.st_size), offset + length, false, -1);
  begin(slot);
  const ssize_t result = make();
  if (result == 0) {
    add_hole(before.st_ino, static_cast<uint64_t>(before.st_size), offset + length);
  }
  end(slot, result == 0);
  return result;
}

ssize_t undo_truncate(int fd, uint64_t length, system_call make)
{
  const lock_scope scope(book.lock);
  struct stat before;
  if (!is_on() || fstat(fd, &before) != 0 || length == static_cast<uint64_t>(before.st_size)) {
    return make();
  }
  const auto size = static_cast<uint64_t>(before.st_size);
  const int source = length < size ? reopen(fd) : -1;
  undo_slot *slot = new_data_slot(before, std::min(size, length), std::max(size, length), false, source);
  if (source >= 0) {
    syscall(SYS_close, source);
  }
  forget_holes(before.st_ino);
  begin(slot);
  const ssize_t result = make();
  end(slot, result == 0);
  return result;
}

ssize_t undo_sync(system_call make)
{
  const uint64_t began = sync_begins();
  const ssize_t result = make();
  const lock_scope scope(book.lock);
  if (is_on()) {
    free_slots([began](const undo_slot &slot) { return slot.sequence < began; });
  }
  return result;
}

ssize_t undo_fsync(int fd, const char *directory, system_call make)
{
  const uint64_t began = sync_begins();
  const ssize_t result = make();
  const lock_scope scope(book.lock);
  struct stat file;
  if (result != 0 || !is_on() || fstat(fd, &file) != 0) {
    return result;
  }
  const size_t root_length = ROOT_LENGTH - 1;  // "/flashdisk" itself may come with or without its slash
  const char *below = directory == nullptr ? "" : directory + std::min(strlen(directory), root_length);
  below += *below == '/' ? 1 : 0;
  char parent[PATH_MAX];
  snprintf(parent, sizeof parent, "%s", below);
  if (const size_t length = strlen(parent); length > 0 && parent[length - 1] == '/') {
    parent[length - 1] = '\0';
  }
  free_slots([&](const undo_slot &slot) {
    if (slot.sequence >= began) {
      return false;
    }
    if (directory == nullptr) {
      return slot.kind == undo_kind::data && slot.file == file.st_ino;
    }
    return slot.kind != undo_kind::data && lies_in(slot.kind == undo_kind::rename ? slot.new_name : slot.name, parent);
  });
  return result;
}

}  // namespace disk_faults
