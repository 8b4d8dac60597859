/// The listening end of the control socket, and its file.
#pragma once

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace kesh
{

class control_listener
{
public:
  control_listener() = default;
  ~control_listener() { close(); }
  control_listener(const control_listener &) = delete;
  control_listener &operator=(const control_listener &) = delete;

  /// Listens at `path`, mode 0600, without blocking. A socket file to which nobody listens is replaced. Anything else
  /// at `path` is left alone: returns false, and `error` says what it is.
  bool open(const std::string &path, std::string &error);
  /// Removes the file too, unless it has become another one.
  void close();
  int fd() const { return fd_.get(); }

private:
  platform::unique_fd fd_;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace kesh
