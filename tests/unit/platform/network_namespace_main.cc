// Runs the tests in a network namespace of their own, so that they meet no other run of themselves.
#include <gtest/gtest.h>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace
{

bool enter_namespace()
{
  if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    return false;
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq loopback{};
  strncpy(loopback.ifr_name, "lo", sizeof loopback.ifr_name - 1);
  loopback.ifr_flags = IFF_UP;
  const bool up = ioctl(fd, SIOCSIFFLAGS, &loopback) == 0;
  close(fd);
  return up;
}

}  // namespace

int main(int argc, char **argv)
{
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests) && !enter_namespace()) {
    perror("cannot make a network namespace");
    return 1;
  }
  return RUN_ALL_TESTS();
}
