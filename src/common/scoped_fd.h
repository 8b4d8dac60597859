/// Closes a file descriptor at the end of the scope.
#pragma once

#include <unistd.h>

class scoped_fd
{
public:
  explicit scoped_fd(int fd) : fd_(fd) {}
  ~scoped_fd()
  {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  scoped_fd(const scoped_fd &) = delete;
  scoped_fd &operator=(const scoped_fd &) = delete;
  bool is_open() const { return fd_ >= 0; }
  int get() const { return fd_; }

private:
  int fd_;
};
