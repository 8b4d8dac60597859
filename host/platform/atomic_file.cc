#include "atomic_file.h"

#include "unique_fd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace platform
{
namespace
{

std::string errno_text()
{
  return std::generic_category().message(errno);
}

bool write_all(int fd, std::string_view content)
{
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    content.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
  }
  return true;
}

// A process that is not root, or is root only of a user namespace, cannot give the file to its old owner. That is no
// reason to lose a save.
bool take_over_mode(int fd, const std::string &path)
{
  struct stat old;
  if (stat(path.c_str(), &old) != 0) {
    return true;
  }
  [[maybe_unused]] const int given = fchown(fd, old.st_uid, old.st_gid);
  return fchmod(fd, old.st_mode & 07777) == 0;
}

bool sync_directory_of(const std::string &path)
{
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const unique_fd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

}  // namespace

bool file_read(const std::string &path, std::string &content, std::string &error)
{
  // A FIFO would wait for a writer.
  const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::string read_so_far;
  struct stat kind;
  if (!fd || fstat(fd.get(), &kind) != 0) {
    error = errno_text();
    return false;
  }
  if (!S_ISREG(kind.st_mode)) {
    error = "not a regular file";
    return false;
  }
  for (;;) {
    const size_t have = read_so_far.size();
    constexpr size_t STEP = 16384;
    read_so_far.resize(have + STEP);
    const ssize_t got = read(fd.get(), read_so_far.data() + have, STEP);
    if (got < 0 && errno != EINTR) {
      error = errno_text();
      return false;
    }
    read_so_far.resize(have + (got < 0 ? 0 : static_cast<size_t>(got)));
    if (got == 0) {
      break;
    }
  }
  content = std::move(read_so_far);
  return true;
}

bool file_replace(const std::string &path, std::string_view content, std::string &error)
{
  const std::string temporary = path + ".tmp";
  unique_fd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd) {
    error = temporary + ": " + errno_text();
    return false;
  }
  if (!take_over_mode(fd.get(), path) || !write_all(fd.get(), content) || fsync(fd.get()) != 0 || !fd.reset() ||
      rename(temporary.c_str(), path.c_str()) != 0) {
    error = temporary + ": " + errno_text();
    unlink(temporary.c_str());
    return false;
  }
  if (!sync_directory_of(path)) {
    error = "directory of " + path + ": " + errno_text();
    return false;
  }
  return true;
}

}  // namespace platform
