#include "namespaces.h"

#include "view.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace node_view
{

void fail(const std::string &what)
{
  throw view_error(what + ": " + std::strerror(errno));
}

namespace
{

void write_file(const std::string &path, const std::string &text)
{
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    fail("open " + path);
  }
  bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  int error = errno;
  close(fd);
  errno = error;
  if (!written) {
    fail("write " + path);
  }
}

/// The caller becomes root of the user namespace just made, so that what it starts keeps its rights there.
void map_caller_to_root(uid_t uid, gid_t gid)
{
  write_file("/proc/self/setgroups", "deny");
  write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

bool same_user_namespace(pid_t pid)
{
  struct stat own, other;
  std::string path = "/proc/" + std::to_string(pid) + "/ns/user";
  if (stat("/proc/self/ns/user", &own) != 0) {
    fail("stat /proc/self/ns/user");
  }
  if (stat(path.c_str(), &other) != 0) {
    fail("stat " + path);
  }
  return own.st_dev == other.st_dev && own.st_ino == other.st_ino;
}

}  // namespace

void unshare_namespaces(int flags)
{
  uid_t uid = geteuid();
  gid_t gid = getegid();
  if (unshare(flags) == 0) {
    return;
  }
  if (errno != EPERM) {
    fail("unshare");
  }
  if (unshare(CLONE_NEWUSER | flags) != 0) {
    fail("new namespaces are not allowed here: run it as root, or allow user namespaces (sysctl "
         "kernel.unprivileged_userns_clone=1, user.max_user_namespaces; in a container: --privileged)");
  }
  map_caller_to_root(uid, gid);
}

void join_namespaces(pid_t pid, int flags)
{
  int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) {
    fail("process " + std::to_string(pid));
  }
  if (!same_user_namespace(pid)) {
    flags |= CLONE_NEWUSER;
  }
  if (setns(fd, flags) != 0) {
    fail("join the namespaces of process " + std::to_string(pid));
  }
  close(fd);
}

void bring_loopback_up()
{
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    fail("socket");
  }
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING | IFF_MULTICAST;
  if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
    fail("bring the loopback interface up");
  }
  close(fd);
}

}  // namespace node_view
