#include "store/store_aside.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "atomic_file.h"
#include "store/store_schema.h"

namespace kesh
{

namespace
{

// What must stay together. The -shm is rebuilt from the -wal.
constexpr std::array<const char *, 3> PARTS = {"", "-wal", "-journal"};
constexpr size_t APPLICATION_ID_AT = 68;
constexpr size_t LOOK_SIZE = APPLICATION_ID_AT + 4;

[[noreturn]] void fail(const std::string &path, const std::string &what)
{
  throw store_failure(path + ": " + what + ": " + strerror(errno));
}

bool exists(const std::string &path)
{
  struct stat status;
  if (lstat(path.c_str(), &status) == 0) {
    return true;
  }
  if (errno != ENOENT) {
    fail(path, "cannot be looked at");
  }
  return false;
}

void unlink_if_there(const std::string &path)
{
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    fail(path, "cannot be removed");
  }
}

void rename_to_new(const std::string &from, const std::string &to)
{
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return;
  }
  // Some file systems know no such rename.
  if (errno != EINVAL || exists(to) || rename(from.c_str(), to.c_str()) != 0) {
    fail(from, "cannot be renamed to " + to);
  }
}

std::string directory_of(const std::string &path)
{
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

void sync_at(const std::string &path, int flags)
{
  const platform::unique_fd fd(open(path.c_str(), flags | O_CLOEXEC));
  if (!fd || fsync(fd.get()) != 0) {
    fail(path, "cannot be made durable");
  }
}

void sync_directory_of(const std::string &path)
{
  sync_at(directory_of(path), O_RDONLY | O_DIRECTORY);
}

std::string intent_of(const std::string &path)
{
  return path + ".putting-aside";
}

std::string free_target(const std::string &path)
{
  const time_t now = time(nullptr);
  struct tm parts = {};
  char text[32];
  gmtime_r(&now, &parts);
  strftime(text, sizeof text, "%Y%m%dT%H%M%S", &parts);
  const std::string first = path + ".aside-" + text;
  std::string target = first;
  for (int k = 1; has_parts(target); ++k) {
    target = first + '.' + std::to_string(k);
  }
  return target;
}

void step(aside_step after_step)
{
  if (after_step != nullptr) {
    after_step();
  }
}

}  // namespace

platform::unique_fd store_lock(const std::string &path)
{
  const std::string lock_path = path + ".lock";
  platform::unique_fd fd(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644));
  if (!fd) {
    fail(lock_path, "cannot be opened");
  }
  if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    throw store_in_use(path + " is in use by a daemon or another command");
  }
  return fd;
}

std::string configuring_path(const std::string &store_path)
{
  return store_path + ".configuring";
}

std::string interrupted_configuration(const std::string &store_path)
{
  const std::string path = configuring_path(store_path);
  if (!exists(path)) {
    return {};
  }
  std::string command;
  std::string error;
  if (!platform::file_read(path, command, error)) {
    throw store_failure(path + ": " + error);
  }
  command.resize(std::min(command.find('\n'), command.size()));
  return command.empty() ? "kesh configure" : command;
}

store_file store_file_look(const std::string &path, std::string &why)
{
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      fail(path, "cannot be looked at");
    }
    return store_file::absent;
  }
  if (!S_ISREG(status.st_mode)) {
    why = path + " is no regular file";
    return store_file::foreign;
  }
  if (status.st_size == 0) {
    return store_file::empty;
  }
  char head[LOOK_SIZE] = {};
  const platform::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd || read(fd.get(), head, sizeof head) < 0) {
    fail(path, "cannot be read");
  }
  uint32_t id = 0;
  for (size_t i = 0; i < 4; ++i) {
    id = id << 8 | static_cast<uint8_t>(head[APPLICATION_ID_AT + i]);
  }
  if (memcmp(head, "SQLite format 3", 16) != 0 || id != STORE_APPLICATION_ID) {
    why = path + " is no store of kesh, at bytes 0 to " + std::to_string(LOOK_SIZE - 1) + ": move it away";
    return store_file::foreign;
  }
  return store_file::ours;
}

uint64_t file_number(const std::string &path)
{
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_ino) : 0;
}

bool has_parts(const std::string &path)
{
  bool found = false;
  for (const char *part : PARTS) {
    found = found || exists(path + part);
  }
  return found;
}

std::string put_aside(const std::string &path, aside_step after_step)
{
  finish_putting_aside(path, after_step);
  const std::string target = free_target(path);
  std::string error;
  if (!platform::file_replace(intent_of(path), target.substr(target.rfind('/') + 1) + '\n', error)) {
    throw store_failure("cannot put " + path + " aside: " + error);
  }
  step(after_step);
  finish_putting_aside(path, after_step);
  return target;
}

void finish_putting_aside(const std::string &path, aside_step after_step)
{
  if (!exists(intent_of(path))) {
    return;
  }
  std::string name;
  std::string error;
  if (!platform::file_read(intent_of(path), name, error)) {
    throw store_failure(intent_of(path) + ": " + error);
  }
  const std::string directory = directory_of(path);
  const std::string start = path.substr(path.rfind('/') + 1) + ".aside-";
  const bool is_whole = !name.empty() && name.back() == '\n';
  name.resize(name.size() - (is_whole ? 1 : 0));
  if (!is_whole || name.size() <= start.size() || !name.starts_with(start) || name.find('/') != std::string::npos) {
    throw store_failure(intent_of(path) + " does not name a file beside it: see which files belong together");
  }
  if (std::string why; store_file_look(path, why) == store_file::foreign) {
    throw store_unsuited(why);
  }
  const std::string target = (path.find('/') == std::string::npos ? "" : directory) + name;
  for (const char *part : PARTS) {
    if (exists(path + part)) {
      rename_to_new(path + part, target + part);
      step(after_step);
    }
  }
  unlink_if_there(path + "-shm");
  sync_directory_of(path);
  step(after_step);
  unlink_if_there(intent_of(path));
  step(after_step);
  sync_directory_of(path);
}

std::string put_file_aside(const std::string &path, const std::string &part)
{
  const std::string target = free_target(path);
  if (exists(path + part)) {
    rename_to_new(path + part, target + part);
  }
  rename_to_new(path, target);
  sync_directory_of(path);
  return target;
}

void remove_leftover(const std::string &path)
{
  for (const char *part : PARTS) {
    unlink_if_there(path + part);
  }
  unlink_if_there(path + "-shm");
}

void remove_durably(const std::string &path)
{
  unlink_if_there(path);
  sync_directory_of(path);
}

void name_durably(const std::string &from, const std::string &to)
{
  sync_at(from, O_RDONLY);
  rename_to_new(from, to);
  sync_directory_of(to);
}

}  // namespace kesh
