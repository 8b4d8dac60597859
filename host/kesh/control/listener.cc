#include "control/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace kesh
{

namespace
{

constexpr int BACKLOG = 1024;

platform::unique_fd stream_socket()
{
  return platform::unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

const sockaddr *as_address(const sockaddr_un &address)
{
  return reinterpret_cast<const sockaddr *>(&address);
}

/// Two daemons that start at once must not both take the same old file away.
platform::unique_fd lock_directory(const std::string &path)
{
  std::string directory = std::filesystem::path(path).parent_path();
  platform::unique_fd fd(::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) {
    flock(fd.get(), LOCK_EX);
  }
  return fd;
}

/// Makes `address` free if it is, or was, a control socket. Returns why it is not; empty if it is.
std::string make_free(const sockaddr_un &address)
{
  const std::string path = address.sun_path;
  struct stat found;
  if (lstat(path.c_str(), &found) != 0) {
    return errno == ENOENT ? "" : path + ": " + strerror(errno);
  }
  if (!S_ISSOCK(found.st_mode)) {
    return path + " is not a socket; it is left alone";
  }
  const platform::unique_fd fd = stream_socket();
  // EAGAIN: the listener is behind with accepting.
  if (connect(fd.get(), as_address(address), sizeof address) == 0 || errno == EAGAIN) {
    return path + " is in use: another daemon listens there";
  }
  if (errno != ECONNREFUSED || unlink(path.c_str()) != 0) {
    return path + " cannot be replaced: " + strerror(errno);
  }
  return "";
}

}  // namespace

bool control_listener::open(const std::string &path, std::string &error)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    error = "the path of a socket has 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes: " + path;
    return false;
  }
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const platform::unique_fd directory = lock_directory(path);
  error = make_free(address);
  if (!error.empty()) {
    return false;
  }
  platform::unique_fd fd = stream_socket();
  struct stat made;
  // The file gets the mode that the socket has when it is bound. The umask would be that of all threads.
  if (!fd || fchmod(fd.get(), 0600) != 0 || bind(fd.get(), as_address(address), sizeof address) != 0 ||
      listen(fd.get(), BACKLOG) != 0 || lstat(path.c_str(), &made) != 0) {
    error = "cannot listen on " + path + ": " + strerror(errno);
    return false;
  }
  fd_ = std::move(fd);
  path_ = path;
  device_ = made.st_dev;
  inode_ = made.st_ino;
  return true;
}

void control_listener::close()
{
  if (!fd_) {
    return;
  }
  const platform::unique_fd directory = lock_directory(path_);
  struct stat found;
  if (lstat(path_.c_str(), &found) == 0 && found.st_dev == device_ && found.st_ino == inode_) {
    unlink(path_.c_str());
  }
  fd_.reset();
}

}  // namespace kesh
