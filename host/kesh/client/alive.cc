#include "client/alive.h"

#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "exit_codes.h"

namespace kesh
{

namespace
{

constexpr size_t SIGN_SIZE = 8;

struct sign {
  long type;
  char text[64];
};

/// A full queue took no signs. Waits for the next one, which comes within a second; false: it does not. Such a queue
/// offers no wait with a deadline.
bool await_sign(int queue, msqid_ds &state)
{
  constexpr int TRIES = 60;
  constexpr useconds_t PAUSE_US = 50'000;
  for (int i = 0; i < TRIES; ++i) {
    if (msgctl(queue, IPC_STAT, &state) != 0) {
      return false;
    }
    if (state.msg_qnum != 0) {
      return true;
    }
    usleep(PAUSE_US);
  }
  return false;
}

}  // namespace

int alive_command(key_t queue_key, uint32_t max_age_s)
{
  const int queue = msgget(queue_key, 0);
  msqid_ds state;
  if (queue < 0 || msgctl(queue, IPC_STAT, &state) != 0) {
    printf("not alive: %s: %s\n",
           errno == ENOENT ? "no library has begun to give signs of life" : "the signs of life cannot be read",
           strerror(errno));
    return EXIT_UNREACHABLE;
  }
  const bool was_full = state.msg_cbytes + SIGN_SIZE > state.msg_qbytes;
  msgqnum_t received = 0;
  sign one;
  while (msgrcv(queue, &one, sizeof one.text, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    ++received;
  }
  const bool has_come = received > state.msg_qnum;  // while the queue was emptied
  if (msgctl(queue, IPC_STAT, &state) != 0 || (was_full && !has_come && !await_sign(queue, state))) {
    printf("not alive: the queue was full, and no sign of life came since it was emptied\n");
    return EXIT_REFUSED;
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
