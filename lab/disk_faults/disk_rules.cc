#include "disk_rules.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

namespace disk_faults
{

namespace
{

constexpr size_t RULES_MAX = 32;
constexpr size_t NAME_SIZE = 64;
constexpr size_t LINE_SIZE = 160;
constexpr size_t FILE_SIZE_MAX = 8192;

enum class fault { enospc, eio, readonly, unreadable, cut_write, slow_sync, kill_before, kill_after, count };

constexpr const char *FAULT_NAMES[] = {"enospc",    "eio",       "readonly",    "unreadable",
                                       "cut_write", "slow_sync", "kill_before", "kill_after"};
constexpr const char *CALL_NAMES[] = {"open", "open_read", "read", "write", "rename", "unlink", "sync"};

struct rule {
  fault kind = fault::count;
  disk_call call = disk_call::count;  // for kill_before and kill_after only
  char name[NAME_SIZE] = "*";
  unsigned long number = 0;  // bytes, milliseconds or the number of the call
  unsigned long skip = 0;
  unsigned long fitted = 0;  // matching calls so far
  bool told = false;
};

struct rule_book {
  std::mutex lock;
  const char *path = nullptr;  // null: not looked up yet
  struct stat seen = {};
  rule rules[RULES_MAX];
  size_t count = 0;
  char text[FILE_SIZE_MAX] = {};
};
constinit rule_book book;

// Direct system calls: this library replaces those of the C library.
int raw_open(const char *path, int flags)
{
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, 0644));
}

void tell(const char *what)
{
  char path[PATH_MAX];
  char line[LINE_SIZE * 2];
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  snprintf(path, sizeof path, "%s.log", book.path);
  const int length = snprintf(line, sizeof line, "%lld %d %s\n",
                              static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec, getpid(), what);
  const int fd = raw_open(path, O_WRONLY | O_CREAT | O_APPEND);
  if (fd >= 0) {
    syscall(SYS_write, fd, line, static_cast<size_t>(length));
    syscall(SYS_close, fd);
  }
}

template <typename kind, size_t size>
kind find_name(const char *const (&names)[size], const char *word)
{
  size_t i = 0;
  while (i < size && strcmp(names[i], word) != 0) {
    i++;
  }
  return static_cast<kind>(i);
}

bool read_kill(char *word, unsigned long number, rule &result)
{
  char *name = strchr(word, ':');
  if (name == nullptr || number == 0) {
    return false;
  }
  *name++ = '\0';
  result.call = find_name<disk_call>(CALL_NAMES, word);
  snprintf(result.name, sizeof result.name, "%s", name);
  result.number = number;
  return result.call != disk_call::count && *name != '\0';
}

bool read_rule(const char *line, rule &result)
{
  char kind[NAME_SIZE] = "";
  char name[NAME_SIZE] = "";
  unsigned long number = 0;
  char rest[2];
  if (sscanf(line, "%63s", kind) != 1) {
    return false;
  }
  result.kind = find_name<fault>(FAULT_NAMES, kind);
  switch (result.kind) {
  case fault::slow_sync: {
    const int words = sscanf(line, "%*s %lu %63s %1s", &result.number, result.name, rest);
    return words == 1 || words == 2;
  }
  case fault::kill_before:
  case fault::kill_after:
    return sscanf(line, "%*s %63s %lu %1s", name, &number, rest) == 2 && read_kill(name, number, result);
  case fault::cut_write: {
    const int words = sscanf(line, "%*s %63s %lu skip %lu %1s", result.name, &result.number, &result.skip, rest);
    return words == 3 || (words == 2 && strstr(line, "skip") == nullptr);
  }
  case fault::enospc:
  case fault::eio:
  case fault::readonly:
  case fault::unreadable: {
    const int words = sscanf(line, "%*s %63s skip %lu %1s", result.name, &result.skip, rest);
    return words == 2 || (words == 1 && sscanf(line, "%*s %*s %1s", rest) != 1);
  }
  case fault::count:
    break;
  }
  return false;
}

void read_rules()
{
  book.count = 0;
  const int fd = raw_open(book.path, O_RDONLY);
  if (fd < 0) {
    return;
  }
  const long got = syscall(SYS_read, fd, book.text, sizeof book.text - 1);
  syscall(SYS_close, fd);
  book.text[got > 0 ? got : 0] = '\0';
  char *next = nullptr;
  for (char *line = strtok_r(book.text, "\n", &next); line != nullptr; line = strtok_r(nullptr, "\n", &next)) {
    line += strspn(line, " \t");
    if (*line == '\0' || *line == '#') {
      continue;
    }
    rule read;
    if (book.count < RULES_MAX && read_rule(line, read)) {
      book.rules[book.count++] = read;
    } else {
      char text[LINE_SIZE];
      snprintf(text, sizeof text, "not understood: %.100s", line);
      tell(text);
    }
  }
}

/// Reads the rules again if they have changed. Returns false if VX_DISK_FAULTS names no file.
bool refresh()
{
  if (book.path == nullptr) {
    const char *path = getenv("VX_DISK_FAULTS");
    book.path = path != nullptr ? path : "";
  }
  if (*book.path == '\0') {
    return false;
  }
  struct stat now = {};
  if (syscall(SYS_newfstatat, AT_FDCWD, book.path, &now, 0) != 0) {
    now = {};
  }
  if (now.st_ino != book.seen.st_ino || now.st_size != book.seen.st_size ||
      now.st_mtim.tv_sec != book.seen.st_mtim.tv_sec || now.st_mtim.tv_nsec != book.seen.st_mtim.tv_nsec) {
    book.seen = now;
    read_rules();
  }
  return true;
}

bool fits_call(const rule &one, disk_call call)
{
  switch (one.kind) {
  case fault::enospc:
  case fault::cut_write:
    return call == disk_call::write;
  case fault::eio:
    return call == disk_call::write || call == disk_call::read;
  case fault::readonly:
    return call == disk_call::open_write || call == disk_call::write || call == disk_call::rename ||
           call == disk_call::unlink;
  case fault::unreadable:
    return call == disk_call::open_read;
  case fault::slow_sync:
    return call == disk_call::sync;
  case fault::kill_before:
  case fault::kill_after:
    return call == one.call;
  case fault::count:
    break;
  }
  return false;
}

bool fits_name(const rule &one, const char *name)
{
  const size_t length = strlen(one.name);
  return fnmatch(one.name, name, 0) == 0 || (strncmp(one.name, name, length) == 0 && name[length] == '.');
}

/// Adds the effect of a rule that is due.
void apply(const rule &one, verdict &result)
{
  switch (one.kind) {
  case fault::enospc:
    result.error = ENOSPC;
    break;
  case fault::eio:
  case fault::unreadable:
    result.error = EIO;
    break;
  case fault::readonly:
    result.error = EROFS;
    break;
  case fault::cut_write:
    result.bytes = one.number;
    break;
  case fault::slow_sync:
    result.delay_ms = static_cast<uint32_t>(one.number);
    break;
  case fault::kill_before:
    kill_process();
  case fault::kill_after:
    result.kill_after = true;
    break;
  case fault::count:
    break;
  }
}

bool is_due(const rule &one)
{
  const bool kills = one.kind == fault::kill_before || one.kind == fault::kill_after;
  return kills ? one.fitted == one.number : one.fitted > one.skip;
}

}  // namespace

void kill_process()
{
  for (;;) {
    kill(getpid(), SIGKILL);
  }
}

verdict judge(disk_call call, const char *name)
{
  verdict result;
  const std::lock_guard<std::mutex> scope(book.lock);
  if (!refresh()) {
    return result;
  }
  for (size_t i = 0; i < book.count; i++) {
    rule &one = book.rules[i];
    if (!fits_call(one, call) || !fits_name(one, name)) {
      continue;
    }
    one.fitted++;
    if (!is_due(one)) {
      continue;
    }
    if (!one.told) {
      one.told = true;
      char text[LINE_SIZE];
      snprintf(text, sizeof text, "%s %s %s", CALL_NAMES[static_cast<size_t>(call)], *name != '\0' ? name : "-",
               FAULT_NAMES[static_cast<size_t>(one.kind)]);
      tell(text);
    }
    apply(one, result);
  }
  return result;
}

}  // namespace disk_faults
