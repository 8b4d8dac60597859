#include "ordered_broadcast/leader_watch.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/le_bytes.h"
#include "common/monotonic_clock.h"
#include "common/scoped_fd.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/lagging_nodes.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/watch_pause.h"
#include "service/envelope.h"
#include "vx_host.h"

namespace
{

constexpr const char *NODE_STATE_FILE = "/var/run/node_state";
constexpr const char *LEADER_STATE = "MASTER";
constexpr key_t KEEPALIVED_MSGQ_KEY = 0x64387148;
constexpr size_t READ_SIZE = 10;
constexpr size_t STATE_LENGTH = 6;  // characters that count
constexpr int64_t PERIOD_US = 1000000;

struct node_state {
  char text[12] = "";
};

// A System V message: type, then the time in seconds and the build number.
struct liveness_message {
  long mtype;
  uint8_t mtext[8];
};

// False if the file cannot be opened: the state is then unchanged.
bool read_node_state(node_state &state)
{
  const scoped_fd fd(open(NODE_STATE_FILE, O_RDONLY | O_CLOEXEC));
  if (!fd.is_open()) {
    return false;
  }
  const ssize_t got = read(fd.get(), state.text, READ_SIZE);
  state.text[got <= 0 ? 0 : std::min(static_cast<size_t>(got), STATE_LENGTH)] = '\0';
  return true;
}

void enter_leader_mode() CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock)
{
  if (paxos.is_leader == 0) {
    vx_log("CONS: PAXOS: Entering Leader Mode\n");
  }
  paxos.is_leader = 1;
  paxos_log.announce();
}

void leave_leader_mode() CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock)
{
  if (paxos.is_leader != 0) {
    vx_log("CONS: PAXOS: Leaving Leader Mode\n");
  }
  paxos.is_leader = 0;
  paxos_log.withdraw();
}

// Saves and snapshots are made with the protocol's locks held. What does not get them before the next sign of life is
// due is left to the next pass.

bool follow_node_state(const node_state &state, int64_t due_us)
{
  if (!paxos.forward_lock.try_lock_until_us(due_us)) {
    return false;
  }
  cons_lock forward_lock(paxos.forward_lock, cons_already_held{});
  if (!paxos.propose_lock.try_lock_until_us(due_us)) {
    return false;
  }
  cons_lock propose_lock(paxos.propose_lock, cons_already_held{});
  if (std::strcmp(state.text, LEADER_STATE) == 0) {
    enter_leader_mode();
  } else {
    leave_leader_mode();
  }
  paxos.launch_cond.signal();
  return true;
}

void send_decisions(int64_t due_us)
{
  if (!paxos.propose_lock.try_lock_until_us(due_us)) {
    return;
  }
  cons_lock lock(paxos.propose_lock, cons_already_held{});
  paxos_log.retry_announce();
  paxos_help_askers();
}

void send_liveness(int queue, liveness_message &message)
{
  put_le32(message.mtext, static_cast<uint32_t>(time(nullptr)));
  if (msgsnd(queue, &message, sizeof message.mtext, IPC_NOWAIT) == 0) {
    return;
  }
  if (errno == EAGAIN) {
    vx_log("CONS: PAXOS: Cannot send message to keepalived: %s\n", strerror(errno));
  } else {
    vx_log_err("Cannot send message to keepalived");
  }
}

void wait_until(int64_t due_us)
{
  cons_lock lock(paxos_watch_pause.lock);
  for (int64_t left_us = 0; (left_us = due_us - monotonic_us()) > 0 && !paxos.stopped;) {
    if (paxos_is_help_urgent()) {
      lock.unlock();
      send_decisions(due_us);
      lock.lock();
    } else {
      paxos_watch_pause.wake_cond.wait_for_us(paxos_watch_pause.lock, left_us);
    }
  }
}

}  // namespace

void *paxos_leader_watch_thread(void *)
{
  liveness_message message = {.mtype = 1, .mtext = {}};
  put_le32(message.mtext + 4, vx_firmware_dova_build_nr);
  const int queue = msgget(KEEPALIVED_MSGQ_KEY, IPC_CREAT | 0600);
  if (queue == -1) {
    vx_log_err("Cannot get/create msg queue for watching kesh process by keepalived");
  }
  node_state current;
  node_state previous;
  while (!paxos.stopped) {
    const int64_t due_us = monotonic_us() + PERIOD_US;
    send_liveness(queue, message);
    if (read_node_state(current) && std::strcmp(current.text, previous.text) != 0 &&
        follow_node_state(current, due_us)) {
      previous = current;
    }
    send_decisions(due_us);
    wait_until(due_us);
  }
  return nullptr;
}
