#include "instance.h"

#include <sched.h>

#include <cstdlib>
#include <numeric>

#include "fake_state.h"
#include "ordered_broadcast/paxos_state.h"
#include "payload_dissemination/data_state.h"
#include "payload_dissemination/payload_table.h"
#include "vx_cons.h"

namespace
{

std::atomic<uint32_t> hook_sum;  // so that no compiler leaves the reading out

void read_all(const uint8_t *data, uint32_t length, uint32_t)
{
  hook_sum = std::accumulate(data, data + length, uint32_t{0});
  ++hook_calls;
}

int get_state(uint8_t **state, uint32_t *length)
{
  *length = 5;
  *state = static_cast<uint8_t *>(std::calloc(*length, 1));
  return 0;
}

// The pull-thread has nothing to do until an answer arrives or time passes, nor has the deliver-thread.
bool is_delivered()
{
  cons_lock pull_lock(paxos_data.pull.lock);
  cons_lock queue_lock(paxos_data.deliver_queue_lock);
  bool is_waiting = paxos_data.pull_pos >= id_batch_count(paxos_data.pull_batch);
  if (!is_waiting) {
    const id_entry next = id_batch_entry(paxos_data.pull_batch, paxos_data.pull_pos);
    is_waiting = paxos_data.pull.is_pulled && paxos_data_has_entry(next.msg_id, next.sender) == 0;
  }
  return paxos_data_stopped || (is_waiting && paxos_data.deliver_pos >= id_batch_count(paxos_data.deliver_batch));
}

}  // namespace

instance::instance(uint32_t node_count)
{
  files::clear();
  fake::start(fake::dispatch::per_channel);
  require(vx_cons_init() == 0, "init");
  for (const uint32_t type : {0u, 1u, 2u}) {
    vx_cons_register_data_hooks(type, type == 0 ? get_state : nullptr, read_all);
  }
  vx_cons_register_clmsg_hook(0, read_all);
  const std::vector<const char *> macs(node_count, fake::MAC);
  require(vx_cons_configure("10.0.0.1", "255.0.0.0", "10.0.0.254", macs.data(), node_count, "1", nullptr) == 0,
          "configure");
}

int instance::start(bool is_leader)
{
  files::set_node_state(is_leader ? "MASTER" : "BACKUP");
  const int result = vx_cons_start();
  while (result == 0 && is_leader && paxos.is_leader == 0) {
    sched_yield();
  }
  return result;
}

instance::~instance()
{
  vx_cons_stop();
  require(fake::live_threads() == 0, "no thread is left after stop");
  vx_cons_cleanup();
  require(fake::settle(), "hooks return after cleanup");
  fake::stop();
  require(fake::queued_count() == 0, "no repeated message is left after cleanup");
  require(fake::messages_in_hand() == 0, "every message that was allocated is sent");
  require(fake::violations().empty(), "the host's contract is kept");
  forget_records();
}

void forget_records()
{
  fake::host_state &host = fake::host();
  const std::lock_guard lock(host.lock);
  decltype(host.sent)().swap(host.sent);
  decltype(host.dequeued)().swap(host.dequeued);
  for (auto *lines : {&host.log, &host.config_calls, &host.number_calls}) {
    std::vector<std::string>().swap(*lines);
  }
}

void wait_handled()
{
  constexpr auto DELIVERY_MAX = std::chrono::milliseconds(20);  // what comes later than that comes with time
  do {
    require(fake::settle(), "every hook returns");
    const auto end = std::chrono::steady_clock::now() + DELIVERY_MAX;
    while (!is_delivered() && std::chrono::steady_clock::now() < end) {
      sched_yield();
    }
  } while (!fake::settle(std::chrono::milliseconds(0)));
}
