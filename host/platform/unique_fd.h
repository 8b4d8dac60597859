/// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace platform
{

class unique_fd
{
public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }
  unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd &operator=(unique_fd &&other) noexcept
  {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  /// Closes it. False if close failed.
  bool reset()
  {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || close(fd) == 0;
  }

private:
  int fd_ = -1;
};

}  // namespace platform
