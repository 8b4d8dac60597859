#include "round_based_registers/register_acceptor.h"
#include "round_based_registers/register_messages.h"
#include "round_based_registers/register_protocol.h"
#include "round_based_registers/register_table.h"
#include "service/envelope.h"
#include "service/identity.h"
#include "vx_host.h"

namespace
{

constexpr const char *TYPE_NAMES[RB_REG_TYPES] = {"READ_REQ",  "READ_ACK",  "READ_NACK",
                                                  "WRITE_REQ", "WRITE_ACK", "WRITE_NACK"};

void log_retired(const rb_reg_message &message)
{
  vx_log("CONS: RB_REG: ignored %s REQ message for an already deleted register (id=%u)\n",
         message.type == READ_REQ ? "READ" : "WRITE", message.id);
}

// The register for a request, created if this node has none yet. Null if the request gets no answer.
rb_reg *register_for_request(const rb_reg_message &message, uint32_t sender_addr)
{
  switch (rb_reg_admit(message.id)) {
  case request_admission::not_ready:
    return nullptr;
  case request_admission::retired:
    log_retired(message);
    if (message.type == READ_REQ && message.id == 1) {
      rb_reg_report_newcomer(sender_addr);
    }
    return nullptr;
  case request_admission::unknown:
    vx_log("CONS: RB-REG: Iplicitely create register (id=%u)\n", message.id);
    if (rb_reg_create_for_request(message.id) != 0) {
      return nullptr;
    }
    break;
  case request_admission::admitted:
    break;
  }
  return rb_reg_get(message.id);
}

rb_reg *register_for_answer(const rb_reg_message &message)
{
  rb_reg *reg = rb_reg_get(message.id);
  if (reg == nullptr) {
    vx_log("CONS: RB_REG: ignored ACK/NACK message for non-existing register (id=%u)\n", message.id);
  }
  return reg;
}

// Each node counts once per round.
bool count_ack(rb_reg &reg, quorum_count &count, uint8_t acked_flag, uint32_t round, uint32_t sender)
    CONS_REQUIRES(reg.lock)
{
  uint8_t &flags = reg.node_flags[sender - 1];
  if (round != count.round || (flags & acked_flag) != 0) {
    return false;
  }
  flags = static_cast<uint8_t>(flags | acked_flag);
  ++count.acks;
  reg.changed_cond.signal();
  return true;
}

void count_read_ack(rb_reg &reg, const rb_reg_message &message, uint32_t sender) CONS_REQUIRES(reg.lock)
{
  const bool is_newer = message.write_round > reg.read_result_round;
  cons_value value;
  if (is_newer && !value.assign(message.value)) {
    return;  // counted without its value, it would make the READ miss what was written
  }
  if (count_ack(reg, reg.read, RB_NODE_READ_ACKED, message.round, sender) && is_newer) {
    reg.read_result_round = message.write_round;
    reg.read_result.swap(value);
  }
}

void count_nack(rb_reg &reg, quorum_count &count, uint32_t round) CONS_REQUIRES(reg.lock)
{
  if (round == count.round) {
    count.nacked = true;
    reg.changed_cond.signal();
  }
}

void handle(rb_reg &reg, const rb_reg_message &message, uint32_t sender, uint32_t sender_addr) CONS_REQUIRES(reg.lock)
{
  if (message.type >= RB_REG_TYPES) {
    vx_log("CONS: RB-REG: unknown message type %u\n", message.type);
    return;
  }
  vx_log("CONS: RB-REG: %s (id=%u, sender=%u, round=%u)\n", TYPE_NAMES[message.type], reg.id, sender, message.round);
  if ((reg.flags & RB_REG_DELETED) != 0) {
    return;  // retired since the lookup: it must neither vote nor write its file any more
  }
  switch (static_cast<rb_reg_type>(message.type)) {
  case READ_REQ:
    rb_reg_accept_read(reg, message, sender, sender_addr);
    break;
  case WRITE_REQ:
    rb_reg_accept_write(reg, message, sender, sender_addr);
    break;
  case READ_ACK:
    count_read_ack(reg, message, sender);
    break;
  case WRITE_ACK:
    count_ack(reg, reg.write, RB_NODE_WRITE_ACKED, message.round, sender);
    break;
  case READ_NACK:
    count_nack(reg, reg.read, message.round);
    break;
  case WRITE_NACK:
    count_nack(reg, reg.write, message.round);
    break;
  case RB_REG_TYPES:
    break;
  }
}

}  // namespace

void rb_reg_recv(void *msg)
{
  const hook_call call(rb_reg_gate);
  if (!call.entered()) {
    return;
  }
  const received_message received(msg);
  if (!received.accepted()) {
    return;
  }
  const uint32_t sender_addr = received.sender_addr();
  const uint32_t sender = node_id_of_addr(sender_addr);
  const auto message = rb_reg_parse(received.payload());
  if (!message || !is_member(sender)) {
    return;
  }
  const bool is_request = message->type == READ_REQ || message->type == WRITE_REQ;
  const rb_reg_ref ref(is_request ? register_for_request(*message, sender_addr) : register_for_answer(*message));
  if (ref.get() != nullptr) {
    cons_lock lock(ref.get()->lock);
    handle(*ref.get(), *message, sender, sender_addr);
  }
}
