#include "cluster/node_state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "unique_fd.h"

namespace kesh
{

bool state_word_write(const std::string &path, std::string_view word, std::string &error)
{
  const std::string line = std::string(word) + '\n';
  if (state_word_read(path) == word) {
    return true;
  }
  // A name of its own for each writer: two that share one could rename each other's empty file.
  std::string temporary = path + ".XXXXXX";
  platform::unique_fd fd(mkostemp(temporary.data(), O_CLOEXEC));
  errno = fd ? ENOSPC : errno;  // a write that is cut short sets none
  if (fd && write(fd.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
      fchmod(fd.get(), 0644) == 0 && fd.reset() && rename(temporary.c_str(), path.c_str()) == 0) {
    return true;
  }
  error = path + ": " + std::generic_category().message(errno);
  unlink(temporary.c_str());
  return false;
}

bool step_down(const std::string &path, std::string &error)
{
  return state_word_write(path, "BACKUP", error) || truncate(path.c_str(), 0) == 0;
}

std::string state_word_read(const std::string &path)
{
  const platform::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char bytes[32];
  const ssize_t got = fd ? read(fd.get(), bytes, sizeof bytes) : 0;
  const std::string_view text(bytes, got > 0 ? static_cast<size_t>(got) : 0);
  return std::string(text.substr(0, std::min(text.find('\n'), sizeof bytes - 1)));
}

}  // namespace kesh
