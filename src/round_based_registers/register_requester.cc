#include <algorithm>

#include "round_based_registers/register_acceptor.h"
#include "round_based_registers/register_messages.h"
#include "round_based_registers/register_protocol.h"
#include "round_based_registers/register_table.h"
#include "service/envelope.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

bool is_cancelled(const rb_reg &reg) CONS_REQUIRES(reg.lock)
{
  return (reg.flags & RB_REG_CANCEL) != 0;
}

// What differs between a READ and a WRITE.
struct operation {
  const char *name;
  uint8_t acked_flag;
  rb_reg_message request;
};

int wait_for_quorum(rb_reg &reg, const quorum_count &count, const operation &op) CONS_REQUIRES(reg.lock)
{
  while (!is_cancelled(reg) && count.acks < cons_service.quorum && !count.nacked) {
    reg.changed_cond.wait(reg.lock);
  }
  if (is_cancelled(reg)) {
    return RB_REG_CANCELLED;
  }
  if (count.nacked) {
    vx_log("CONS: RB-REG: %s aborted (id=%u, round=%u)\n", op.name, reg.id, op.request.round);
    return RB_REG_ABORTED;
  }
  vx_log("CONS: RB-REG: %s committed (id=%u, round=%u)\n", op.name, reg.id, op.request.round);
  return RB_REG_COMMITTED;
}

// Resets the count and the nodes' marks of the operation's kind. The read result keeps the highest write round seen.
void begin(rb_reg &reg, quorum_count &count, const operation &op) CONS_REQUIRES(reg.lock)
{
  count = {.round = op.request.round};
  for (uint8_t &flags : reg.node_flags) {
    flags = static_cast<uint8_t>(flags & ~op.acked_flag);
  }
}

// Returns null if the request cannot be queued. It is not sent once instead, for a lost one would never be answered.
// The message is built last, because there is no way to give back one that is not sent.
void *send(rb_reg &reg, const operation &op) CONS_REQUIRES(reg.lock)
{
  if (op.request.type == WRITE_REQ && !rb_reg_cover_round(reg, op.request.round)) {
    return nullptr;
  }
  uint8_t *message = rb_reg_message_new(op.request);
  if (message == nullptr) {
    return nullptr;
  }
  vx_log("CONS: RB-REG: %s_REQ broadcast (id=%u, round=%u)\n", op.name, reg.id, op.request.round);
  return cons_msg_send(message, RB_REG_CHANNEL, reg.id, CONS_MCAST_ADDR, -1, 1);
}

int run(rb_reg &reg, quorum_count &count, const operation &op) CONS_REQUIRES(reg.lock)
{
  begin(reg, count, op);
  int result = RB_REG_CANCELLED;
  void *handle = nullptr;
  if (!is_cancelled(reg)) {
    handle = send(reg, op);
    result = handle != nullptr ? wait_for_quorum(reg, count, op) : int{RB_REG_ERROR};
  }
  if (result == RB_REG_CANCELLED) {
    vx_log("CONS: RB-REG: %s cancelled (id=%u, round=%u)\n", op.name, reg.id, op.request.round);
  }
  reg.flags &= ~RB_REG_CANCEL;
  if (handle != nullptr) {
    vx_msg_dequeue(handle, 0, 0, 0);
  }
  return result;
}

}  // namespace

int rb_reg_read(uint32_t id, uint32_t round, cons_value &output)
{
  const rb_reg_ref ref(rb_reg_get(id));
  if (ref.get() == nullptr) {
    return RB_REG_ERROR;
  }
  rb_reg &reg = *ref.get();
  cons_lock lock(reg.lock);
  const operation op = {"READ", RB_NODE_READ_ACKED, {.type = READ_REQ, .id = id, .round = round}};
  const int result = run(reg, reg.read, op);
  // Without memory for the copy an empty output would mean "nothing written yet".
  return result == RB_REG_COMMITTED && !output.assign(reg.read_result.bytes()) ? RB_REG_ERROR : result;
}

int rb_reg_write(uint32_t id, uint32_t round, const cons_value &value)
{
  const rb_reg_ref ref(rb_reg_get(id));
  if (ref.get() == nullptr) {
    return RB_REG_ERROR;
  }
  rb_reg &reg = *ref.get();
  cons_lock lock(reg.lock);
  const operation op = {
      "WRITE", RB_NODE_WRITE_ACKED, {.type = WRITE_REQ, .id = id, .round = round, .value = value.bytes()}};
  return run(reg, reg.write, op);
}

void rb_reg_cancel(uint32_t id)
{
  const rb_reg_ref ref(rb_reg_get(id));
  if (ref.get() != nullptr) {
    cons_lock lock(ref.get()->lock);
    ref.get()->flags |= RB_REG_CANCEL;
    ref.get()->changed_cond.signal();
  }
}

void rb_reg_clear_cancel(uint32_t id)
{
  const rb_reg_ref ref(rb_reg_get(id));
  if (ref.get() != nullptr) {
    cons_lock lock(ref.get()->lock);
    ref.get()->flags &= ~RB_REG_CANCEL;
  }
}

uint32_t rb_reg_first_round(uint32_t id, uint32_t first, uint32_t step)
{
  const rb_reg_ref ref(rb_reg_get(id));
  if (ref.get() == nullptr) {
    return first;
  }
  rb_reg &reg = *ref.get();
  cons_lock lock(reg.lock);
  const uint64_t used = std::max(reg.accepted.read_round, reg.accepted.write_round);
  const uint64_t round = used < first ? first : first + ((used - first) / step + 1) * step;
  return round <= UINT32_MAX ? static_cast<uint32_t>(round) : 0;
}
