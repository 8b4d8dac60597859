// The calls that stand in front of the C library's; what each does is judged by the rules.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "disk_rules.h"

namespace
{

using disk_faults::disk_call;
using disk_faults::judge;
using disk_faults::verdict;

constexpr char DIRECTORY[] = "/flashdisk/cons/";
constexpr char TEMPORARY[] = ".tmp";
constexpr size_t FD_MAX = 4096;
using file_name = std::array<char, 48>;

struct tracked_file {
  std::atomic<bool> in_use;
  file_name name;  // written by the opener before in_use
};
constinit std::array<tracked_file, FD_MAX> files{};
// For the sync that follows.
constinit thread_local file_name renamed_last{};

/// The next definition of a function: a sanitizer's, or the C library's.
template <typename function>
function *next(const char *name)
{
  return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

/// False for a path outside the directory.
bool name_of(const char *path, file_name &name)
{
  constexpr size_t DIRECTORY_LENGTH = sizeof DIRECTORY - 1;
  if (strncmp(path, DIRECTORY, DIRECTORY_LENGTH) != 0) {
    return false;
  }
  snprintf(name.data(), name.size(), "%s", path + DIRECTORY_LENGTH);
  char *tail = strstr(name.data(), TEMPORARY);
  if (tail != nullptr && strcmp(tail, TEMPORARY) == 0) {
    *tail = '\0';
  }
  return true;
}

tracked_file *file_of(int fd)
{
  if (fd < 0 || static_cast<size_t>(fd) >= FD_MAX) {
    return nullptr;
  }
  tracked_file &file = files[static_cast<size_t>(fd)];
  return file.in_use.load(std::memory_order_acquire) ? &file : nullptr;
}

void track(int fd, const file_name &name)
{
  if (fd >= 0 && static_cast<size_t>(fd) < FD_MAX) {
    files[static_cast<size_t>(fd)].name = name;
    files[static_cast<size_t>(fd)].in_use.store(true, std::memory_order_release);
  }
}

/// Carries out a call that passed the rules or fails as they say; -1 and errno then.
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
  file_name name;
  if (!name_of(path, name)) {
    return real(path, flags, mode);
  }
  const bool writes = (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
  const verdict given = judge(writes ? disk_call::open_write : disk_call::open_read, name.data());
  const int fd = carry_out(given, [&] { return real(path, flags, mode); });
  track(fd, name);
  return fd;
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
  const verdict given = file != nullptr ? judge(disk_call::read, file->name.data()) : verdict{};
  return carry_out(given, [&] { return real(fd, buffer, size); });
}

ssize_t write(int fd, const void *bytes, size_t size)
{
  static auto *const real = next<ssize_t(int, const void *, size_t)>("write");
  const tracked_file *file = file_of(fd);
  const verdict given = file != nullptr ? judge(disk_call::write, file->name.data()) : verdict{};
  const ssize_t written = carry_out(given, [&] { return real(fd, bytes, std::min(size, given.bytes)); });
  return written >= 0 && given.claim_all ? static_cast<ssize_t>(size) : written;
}

int rename(const char *from, const char *to) noexcept
{
  static auto *const real = next<int(const char *, const char *)>("rename");
  file_name name;
  if (!name_of(to, name)) {
    return real(from, to);
  }
  renamed_last = name;
  return carry_out(judge(disk_call::rename, name.data()), [&] { return real(from, to); });
}

int unlink(const char *path) noexcept
{
  static auto *const real = next<int(const char *)>("unlink");
  file_name name;
  if (!name_of(path, name)) {
    return real(path);
  }
  return carry_out(judge(disk_call::unlink, name.data()), [&] { return real(path); });
}

void sync() noexcept
{
  static auto *const real = next<void()>("sync");
  const file_name name = renamed_last;
  renamed_last = {};
  const verdict given = judge(disk_call::sync, name.data());
  if (given.delay_ms != 0) {
    const timespec delay{given.delay_ms / 1000, static_cast<long>(given.delay_ms % 1000) * 1'000'000};
    nanosleep(&delay, nullptr);
  }
  real();
  if (given.kill_after) {
    disk_faults::kill_process();
  }
}

}  // extern "C"
