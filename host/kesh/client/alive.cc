#include "client/alive.h"

#include <sys/msg.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "exit_codes.h"

namespace kesh
{

namespace
{

struct sign {
  long type;
  char text[64];
};

}  // namespace

int alive_command(key_t queue_key, uint32_t max_age_s)
{
  const int queue = msgget(queue_key, 0);
  msqid_ds state;
  if (queue < 0 || msgctl(queue, IPC_STAT, &state) != 0) {
    printf("not alive: there is no queue of signs of life: %s\n", strerror(errno));
    return EXIT_UNREACHABLE;
  }
  sign one;
  while (msgrcv(queue, &one, sizeof one.text, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
  }
  // The kernel's time of the last one, which stays when the queue is empty.
  if (state.msg_stime == 0) {
    printf("not alive: no sign of life was given yet\n");
    return EXIT_REFUSED;
  }
  const long long age_s = static_cast<long long>(time(nullptr)) - static_cast<long long>(state.msg_stime);
  const bool is_alive = age_s <= static_cast<long long>(max_age_s);
  printf("%salive: the last sign of life is %lld s old\n", is_alive ? "" : "not ", age_s);
  return is_alive ? EXIT_OK : EXIT_REFUSED;
}

}  // namespace kesh
