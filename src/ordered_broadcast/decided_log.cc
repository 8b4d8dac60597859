#include "ordered_broadcast/decided_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/message_ids.h"
#include "ordered_broadcast/paxos_messages.h"
#include "ordered_broadcast/stored_record.h"
#include "ordered_broadcast/waiting_ids.h"
#include "payload_dissemination/paxos_data.h"
#include "round_based_registers/register_table.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "service/isolation.h"
#include "vx_host.h"

namespace
{

constexpr const char *DECIDE_FILE = "/flashdisk/cons/paxos_decide";
constexpr uint32_t DECIDE_SIZE = 4 + ID_BATCH_SIZE;

}  // namespace

void paxos_hand_over(const installed_decision &decision)
{
  paxos_data_pull(decision.batch, decision.last_delivered, decision.number, paxos_waiting.done_ids());
}

installed_decision decided_log::last() const
{
  cons_lock lock(paxos.deliver_lock);
  return {.number = number_, .batch = batch_, .last_delivered = paxos.last_delivered};
}

int decided_log::load()
{
  uint8_t record[DECIDE_SIZE];
  if (store_read(DECIDE_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return -1;
  }
  id_batch batch;
  std::memcpy(batch.bytes, record + 4, ID_BATCH_SIZE);
  if (!id_batch_valid(batch)) {
    vx_log("%s(): CRITICAL - %s holds no valid log\n", "paxos_decide_load", DECIDE_FILE);
    paxos_isolate();
    return -1;
  }
  cons_lock lock(paxos.propose_lock);
  number_ = get_le32(record);
  batch_ = batch;
  durable_number_ = number_;
  is_unsent_ = false;
  rb_reg_set_floor(number_);
  msg_id_raise_floor(batch_);
  return 0;
}

int decided_log::forget()
{
  if (unlink(DECIDE_FILE) != 0 && errno != ENOENT) {
    vx_log_err("%s(): CRITICAL - unlink(%s) failed", "paxos_reset", DECIDE_FILE);
    paxos_isolate();
    return -1;
  }
  sync();
  return 0;
}

int decided_log::reset()
{
  cons_lock lock(paxos.propose_lock);
  number_ = 0;
  batch_ = {};
  return save() ? 0 : -1;
}

std::optional<installed_decision> decided_log::install(uint32_t number, const id_batch &batch)
{
  const bool is_switch = id_batch_first(batch_) != id_batch_first(batch);
  // Every decision adds one entry, so a log of c entries with decision number b names the decisions from b - c + 1 on.
  const bool has_gap = is_switch && uint64_t{number_} + id_batch_count(batch) < number;
  if (is_switch) {
    cons_lock lock(paxos.deliver_lock);
    calls_mark_swallowed(batch_, batch);
  }
  number_ = number;
  batch_ = batch;
  msg_id_raise_floor(batch_);
  if (!save()) {
    return std::nullopt;
  }
  rb_reg_delete_up_to(number_);
  announce();
  installed_decision result = last();
  result.has_gap = has_gap;
  return result;
}

// An older decision never replaces a durable one. Number 0 is a reset.
void decided_log::check_number_grows() const
{
#ifdef CONS_CHECK_LOCKS
  if (number_ != 0 && number_ < durable_number_) {
    std::abort();
  }
#endif
}

bool decided_log::save()
{
  check_number_grows();
  uint8_t record[DECIDE_SIZE];
  put_le32(record, number_);
  std::memcpy(record + 4, batch_.bytes, ID_BATCH_SIZE);
  if (store_write(DECIDE_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return false;
  }
  durable_number_ = number_;
  return true;
}

void decided_log::announce()
{
  withdraw();
  is_unsent_ = false;
  // An isolation may have stopped the node because this decision could not be saved.
  if (paxos.is_leader == 0 || number_ == 0 || paxos.stopped) {
    return;
  }
  is_unsent_ = true;
  if (uint8_t *message = decide_message_new(number_, batch_)) {
    vx_log("CONS: PAXOS: DECIDE broadcast (batch_id=%u)\n", number_);
    is_unsent_ = cons_msg_send(message, PAXOS_CHANNEL, PAXOS_DECIDE, CONS_MCAST_ADDR, -1, 5) == nullptr;
  }
}

void decided_log::retry_announce()
{
  if (is_unsent_) {
    announce();
  }
}

void decided_log::withdraw() const
{
  vx_msg_dequeue(nullptr, PAXOS_CHANNEL, PAXOS_DECIDE, 0);
}

void decided_log::send_to(uint32_t node_addr) const
{
  if (uint8_t *message = decide_message_new(number_, batch_)) {
    vx_log("CONS: PAXOS: DECIDE(update) send (batch_id=%u, receiver=%u)\n", number_, node_id_of_addr(node_addr));
    cons_msg_send(message, PAXOS_CHANNEL, PAXOS_DECIDE, node_addr, 0, 0);
  }
}
