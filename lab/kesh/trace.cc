#include "trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "items/item_text.h"
#include "platform.h"

namespace kesh_lab
{

bool trace::open(const std::string &path, uint64_t life, std::string &error)
{
  if (path.empty()) {
    return true;
  }
  fd_ = platform::unique_fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd_) {
    error = "lab.trace: " + path + ": " + strerror(errno);
    return false;
  }
  life_ = kesh::hex_text(life, 16);
  note("begin", getpid());
  return true;
}

uint64_t trace::now_ns()
{
  constexpr uint64_t NS_PER_S = 1'000'000'000;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * NS_PER_S + static_cast<uint64_t>(now.tv_nsec);
}

void trace::write_line(const std::string &event)
{
  const std::string line = std::to_string(now_ns()) + ' ' + life_ + ' ' + event + '\n';
  if (write(fd_.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    platform::log_line(platform::log_level::error, "trace: a line could not be written: " + event);
  }
}

}  // namespace kesh_lab
