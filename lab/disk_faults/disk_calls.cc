// The calls that replace those of the C library. The rules judge each call, its changes are recorded for a power cut,
// and it is counted.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "disk_counts.h"
#include "disk_rules.h"
#include "disk_undo.h"

namespace
{

using disk_faults::counts;
using disk_faults::disk_call;
using disk_faults::judge;
using disk_faults::verdict;

constexpr char ROOT[] = "/flashdisk";
constexpr size_t ROOT_LENGTH = sizeof ROOT - 1;
constexpr char RECORDS[] = "/flashdisk/cons/";
constexpr size_t RECORDS_LENGTH = sizeof RECORDS - 1;
constexpr char HOST[] = "host/";  // before the names of the host's own files
constexpr char TEMPORARY[] = ".tmp";
constexpr size_t FD_MAX = 4096;
using path_text = std::array<char, 96>;
using file_name = std::array<char, 48>;

struct tracked_file {
  std::atomic<bool> in_use;
  path_text path;  // written before in_use is set
  file_name name;  // for the rules; empty: no rule applies
};
constinit std::array<tracked_file, FD_MAX> files{};
// Names the next sync of this thread for the rules.
constinit thread_local file_name renamed_last{};

/// The next definition of a function: a sanitizer's or the C library's.
template <typename function>
function *next(const char *name)
{
  return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

bool is_ours(const char *path)
{
  return strncmp(path, ROOT, ROOT_LENGTH) == 0 && (path[ROOT_LENGTH] == '/' || path[ROOT_LENGTH] == '\0');
}

/// Returns false, with an empty name, for a path that no rule is about.
bool name_of(const char *path, file_name &name)
{
  name = {};
  if (strncmp(path, RECORDS, RECORDS_LENGTH) == 0) {
    snprintf(name.data(), name.size(), "%s", path + RECORDS_LENGTH);
  } else if (is_ours(path) && path[ROOT_LENGTH] == '/' && strchr(path + ROOT_LENGTH + 1, '/') == nullptr &&
             strncmp(path, RECORDS, RECORDS_LENGTH - 1) != 0) {
    snprintf(name.data(), name.size(), "%s%s", HOST, path + ROOT_LENGTH + 1);
  } else {
    return false;
  }
  char *tail = strstr(name.data(), TEMPORARY);
  if (tail != nullptr && strcmp(tail, TEMPORARY) == 0) {
    *tail = '\0';
  }
  return name[0] != '\0';
}

tracked_file *file_of(int fd);

/// The absolute path of `path` below the directory. Returns `path` itself if the directory is not tracked.
const char *whole_path(int directory, const char *path, path_text &whole)
{
  const tracked_file *parent = *path != '/' ? file_of(directory) : nullptr;
  if (parent == nullptr) {
    return path;
  }
  const int length = snprintf(whole.data(), whole.size(), "%s/%s", parent->path.data(), path);
  return static_cast<size_t>(length) < whole.size() ? whole.data() : path;
}

tracked_file *file_of(int fd)
{
  if (fd < 0 || static_cast<size_t>(fd) >= FD_MAX) {
    return nullptr;
  }
  tracked_file &file = files[static_cast<size_t>(fd)];
  return file.in_use.load(std::memory_order_acquire) ? &file : nullptr;
}

void track(int fd, const char *path, const file_name &name)
{
  if (fd >= 0 && static_cast<size_t>(fd) < FD_MAX) {
    tracked_file &file = files[static_cast<size_t>(fd)];
    snprintf(file.path.data(), file.path.size(), "%s", path);
    file.name = name;
    file.in_use.store(true, std::memory_order_release);
  }
}

bool is_host_file(const file_name &name)
{
  return strncmp(name.data(), HOST, sizeof HOST - 1) == 0;
}

/// Calls on files without a name always pass.
verdict judge_named(disk_call call, const file_name &name)
{
  return name[0] != '\0' ? judge(call, name.data()) : verdict{};
}

/// Carries out the call, or fails it with -1 and the errno of the verdict.
template <typename call>
auto carry_out(const verdict &given, call what) -> decltype(what())
{
  if (given.error != 0) {
    errno = given.error;
    return -1;
  }
  const auto result = what();
  if (given.kill_after) {
    disk_faults::kill_process();
  }
  return result;
}

/// `real` makes the system call.
template <typename call>
int open_path(const char *path, int flags, call real)
{
  if (!is_ours(path)) {
    return real();
  }
  file_name name;
  const bool writes = (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
  const bool is_record = name_of(path, name);
  const disk_call as = writes ? disk_call::open_write : disk_call::open_read;
  const verdict given = is_record ? judge(as, name.data()) : verdict{};
  const int fd = carry_out(given, [&] { return static_cast<int>(disk_faults::undo_open(path, flags, real)); });
  track(fd, path, name);
  return fd;
}

/// `real(size)` writes that many bytes. `offset` below 0 means the descriptor's own position.
template <typename call>
ssize_t write_bytes(int fd, int64_t offset, size_t size, call real)
{
  const tracked_file *file = file_of(fd);
  if (file == nullptr) {
    return real(size);
  }
  const verdict given = judge_named(disk_call::write, file->name);
  const size_t allowed = std::min(size, given.bytes);
  auto make = [&] { return real(allowed); };
  const ssize_t written = carry_out(given, [&] { return disk_faults::undo_write(fd, offset, allowed, make); });
  if (written > 0) {
    auto &counter = is_host_file(file->name) ? counts().host_bytes : counts().library_bytes;
    counter += static_cast<uint64_t>(written);
  }
  return written;
}

void take_time(const verdict &given)
{
  if (given.delay_ms != 0) {
    const timespec delay{given.delay_ms / 1000, static_cast<long>(given.delay_ms % 1000) * 1'000'000};
    nanosleep(&delay, nullptr);
  }
}

/// For the rules, the host's flushes are its syncs.
template <typename call>
int flush(int fd, call real)
{
  const tracked_file *file = file_of(fd);
  if (file == nullptr) {
    return real();
  }
  const verdict given = is_host_file(file->name) ? judge(disk_call::sync, file->name.data()) : verdict{};
  take_time(given);
  counts().flushes++;
  struct stat status;
  const bool is_directory = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
  const ssize_t result = disk_faults::undo_fsync(fd, is_directory ? file->path.data() : nullptr, real);
  if (given.kill_after) {
    disk_faults::kill_process();
  }
  return static_cast<int>(result);
}

template <typename call>
int sync_all(call real)
{
  const file_name name = renamed_last;
  renamed_last = {};
  const verdict given = judge(disk_call::sync, name.data());
  take_time(given);
  counts().syncs++;
  const ssize_t result = disk_faults::undo_sync(real);
  if (given.kill_after) {
    disk_faults::kill_process();
  }
  return static_cast<int>(result);
}

template <typename call>
int reserve(int fd, off_t offset, off_t length, call make)
{
  if (file_of(fd) == nullptr) {
    return make();
  }
  return static_cast<int>(
      disk_faults::undo_reserve(fd, static_cast<uint64_t>(offset), static_cast<uint64_t>(length), make));
}

template <typename call>
int unlink_path(const char *path, call make)
{
  if (!is_ours(path)) {
    return make();
  }
  file_name name;
  name_of(path, name);
  return carry_out(judge_named(disk_call::unlink, name),
                   [&] { return static_cast<int>(disk_faults::undo_unlink(path, make)); });
}

template <typename call>
int rename_path(const char *from, const char *to, call make)
{
  if (!is_ours(to)) {
    return make();
  }
  file_name name;
  if (name_of(to, name) && !is_host_file(name)) {
    renamed_last = name;
  }
  return carry_out(judge_named(disk_call::rename, name),
                   [&] { return static_cast<int>(disk_faults::undo_rename(from, to, make)); });
}

}  // namespace

extern "C" {

int open(const char *path, int flags, ...)
{
  static auto *const real = next<int(const char *, int, ...)>("open");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  auto make = [&] { return real(path, flags, mode); };
  return open_path(path, flags, make);
}

int openat(int directory, const char *path, int flags, ...)
{
  static auto *const real = next<int(int, const char *, int, ...)>("openat");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  path_text whole;
  auto make = [&] { return real(directory, path, flags, mode); };
  return open_path(whole_path(directory, path, whole), flags, make);
}

int close(int fd)
{
  static auto *const real = next<int(int)>("close");
  if (tracked_file *file = file_of(fd)) {
    file->in_use.store(false, std::memory_order_release);
  }
  return real(fd);
}

ssize_t read(int fd, void *buffer, size_t size)
{
  static auto *const real = next<ssize_t(int, void *, size_t)>("read");
  const tracked_file *file = file_of(fd);
  const verdict given = file != nullptr ? judge_named(disk_call::read, file->name) : verdict{};
  return carry_out(given, [&] { return real(fd, buffer, size); });
}

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
  static auto *const real = next<ssize_t(int, void *, size_t, off_t)>("pread");
  const tracked_file *file = file_of(fd);
  const verdict given = file != nullptr ? judge_named(disk_call::read, file->name) : verdict{};
  return carry_out(given, [&] { return real(fd, buffer, size, offset); });
}

ssize_t write(int fd, const void *bytes, size_t size)
{
  static auto *const real = next<ssize_t(int, const void *, size_t)>("write");
  return write_bytes(fd, -1, size, [&](size_t allowed) { return real(fd, bytes, allowed); });
}

ssize_t pwrite(int fd, const void *bytes, size_t size, off_t offset)
{
  static auto *const real = next<ssize_t(int, const void *, size_t, off_t)>("pwrite");
  return write_bytes(fd, offset, size, [&](size_t allowed) { return real(fd, bytes, allowed, offset); });
}

int rename(const char *from, const char *to) noexcept
{
  static auto *const real = next<int(const char *, const char *)>("rename");
  return rename_path(from, to, [&] { return real(from, to); });
}

int renameat2(int from_directory, const char *from, int to_directory, const char *to, unsigned flags) noexcept
{
  static auto *const real = next<int(int, const char *, int, const char *, unsigned)>("renameat2");
  const auto make = [&] { return real(from_directory, from, to_directory, to, flags); };
  return from_directory == AT_FDCWD && to_directory == AT_FDCWD ? rename_path(from, to, make) : make();
}

int unlink(const char *path) noexcept
{
  static auto *const real = next<int(const char *)>("unlink");
  return unlink_path(path, [&] { return real(path); });
}

int unlinkat(int directory, const char *path, int flags) noexcept
{
  static auto *const real = next<int(int, const char *, int)>("unlinkat");
  path_text whole;
  auto make = [&] { return real(directory, path, flags); };
  return flags == 0 ? unlink_path(whole_path(directory, path, whole), make) : make();
}

int ftruncate(int fd, off_t length) noexcept
{
  static auto *const real = next<int(int, off_t)>("ftruncate");
  auto make = [&] { return real(fd, length); };
  return file_of(fd) != nullptr ? static_cast<int>(disk_faults::undo_truncate(fd, static_cast<uint64_t>(length), make))
                                : make();
}

int posix_fallocate(int fd, off_t offset, off_t length)
{
  static auto *const real = next<int(int, off_t, off_t)>("posix_fallocate");
  auto make = [&] { return real(fd, offset, length); };
  return reserve(fd, offset, length, make);
}

int fallocate(int fd, int mode, off_t offset, off_t length)
{
  static auto *const real = next<int(int, int, off_t, off_t)>("fallocate");
  auto make = [&] { return real(fd, mode, offset, length); };
  return mode == 0 ? reserve(fd, offset, length, make) : make();
}

int fsync(int fd)
{
  static auto *const real = next<int(int)>("fsync");
  auto make = [&] { return real(fd); };
  return flush(fd, make);
}

int fdatasync(int fd)
{
  static auto *const real = next<int(int)>("fdatasync");
  auto make = [&] { return real(fd); };
  return flush(fd, make);
}

void sync() noexcept
{
  static auto *const real = next<void()>("sync");
  auto make = [&] {
    real();
    return 0;
  };
  sync_all(make);
}

int syncfs(int fd) noexcept
{
  static auto *const real = next<int(int)>("syncfs");
  auto make = [&] { return real(fd); };
  return sync_all(make);
}

// Programs that are built for large files, such as SQLite, call these names.
int open64(const char *path, int flags, ...) __attribute__((alias("open")));
int openat64(int directory, const char *path, int flags, ...) __attribute__((alias("openat")));
ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset) __attribute__((alias("pread")));
ssize_t pwrite64(int fd, const void *bytes, size_t size, off64_t offset) __attribute__((alias("pwrite")));
int ftruncate64(int fd, off64_t length) noexcept __attribute__((alias("ftruncate")));
int posix_fallocate64(int fd, off64_t offset, off64_t length) __attribute__((alias("posix_fallocate")));
int fallocate64(int fd, int mode, off64_t offset, off64_t length) __attribute__((alias("fallocate")));

}  // extern "C"
