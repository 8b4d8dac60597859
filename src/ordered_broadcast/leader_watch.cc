#include "ordered_broadcast/leader_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/monotonic_clock.h"
#include "common/scoped_fd.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/lagging_nodes.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/sign_of_life.h"
#include "ordered_broadcast/watch_pause.h"
#include "vx_host.h"

namespace
{

constexpr const char *NODE_STATE_FILE = "/var/run/node_state";
constexpr const char *LEADER_STATE = "MASTER";
constexpr size_t READ_SIZE = 10;
constexpr size_t STATE_LENGTH = 6;  // characters that are compared

struct node_state {
  char text[12] = "";
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

// Other threads hold the protocol's locks during saves and snapshots. If a step below does not get them before the next
// sign of life is due, the next pass tries again.

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
  const sign_of_life sign;
  node_state current;
  node_state previous;
  while (!paxos.stopped) {
    const int64_t due_us = monotonic_us() + sign_of_life::PERIOD_US;
    sign.send();
    if (read_node_state(current) && std::strcmp(current.text, previous.text) != 0 &&
        follow_node_state(current, due_us)) {
      previous = current;
    }
    send_decisions(due_us);
    wait_until(due_us);
  }
  return nullptr;
}
