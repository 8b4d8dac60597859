#include "round_based_registers/register_acceptor.h"

#include "service/envelope.h"
#include "service/service_state.h"

namespace
{

bool has_flag(const rb_reg &reg, uint32_t node_id, uint8_t flag) CONS_REQUIRES(reg.lock)
{
  return (reg.node_flags[node_id - 1] & flag) != 0;
}

void move_flag_to(rb_reg &reg, uint32_t node_id, uint8_t flag) CONS_REQUIRES(reg.lock)
{
  for (uint8_t &flags : reg.node_flags) {
    flags = static_cast<uint8_t>(flags & ~flag);
  }
  reg.node_flags[node_id - 1] = static_cast<uint8_t>(reg.node_flags[node_id - 1] | flag);
}

bool promise(rb_reg &reg, uint32_t round, uint32_t node_id) CONS_REQUIRES(reg.lock)
{
  const uint32_t old_round = reg.accepted.read_round;
  reg.accepted.read_round = round;
  move_flag_to(reg, node_id, RB_NODE_READ_PROMISED);
  if (store_save(reg.id, reg.accepted) != 0) {
    reg.accepted.read_round = old_round;
    return false;
  }
  return true;
}

bool accept(rb_reg &reg, const rb_reg_message &request, uint32_t node_id) CONS_REQUIRES(reg.lock)
{
  cons_value value;
  if (!value.assign(request.value)) {
    return false;
  }
  const uint32_t old_round = reg.accepted.write_round;
  reg.accepted.write_round = request.round;
  reg.accepted.value.swap(value);
  move_flag_to(reg, node_id, RB_NODE_WRITE_ACCEPTED);
  if (store_save(reg.id, reg.accepted) != 0) {
    reg.accepted.write_round = old_round;
    reg.accepted.value.swap(value);
    return false;
  }
  return true;
}

}  // namespace

void rb_reg_accept_read(rb_reg &reg, const rb_reg_message &request, uint32_t sender, uint32_t sender_addr)
{
  const uint32_t round = request.round;
  const bool is_repetition = round == reg.accepted.read_round && has_flag(reg, sender, RB_NODE_READ_PROMISED);
  if (round <= reg.accepted.write_round || (!is_repetition && round <= reg.accepted.read_round)) {
    rb_reg_send_reply({.type = READ_NACK, .id = reg.id, .round = round}, sender_addr);
    return;
  }
  if (is_repetition || promise(reg, round, sender)) {
    rb_reg_send_reply({.type = READ_ACK,
                       .id = reg.id,
                       .round = round,
                       .write_round = reg.accepted.write_round,
                       .value = reg.accepted.value.bytes()},
                      sender_addr);
  }
}

void rb_reg_accept_write(rb_reg &reg, const rb_reg_message &request, uint32_t sender, uint32_t sender_addr)
{
  const uint32_t round = request.round;
  const bool is_repetition = round == reg.accepted.write_round && has_flag(reg, sender, RB_NODE_WRITE_ACCEPTED);
  if (round < reg.accepted.write_round || round < reg.accepted.read_round) {
    rb_reg_send_reply({.type = WRITE_NACK, .id = reg.id, .round = round}, sender_addr);
    return;
  }
  if (is_repetition || accept(reg, request, sender)) {
    rb_reg_send_reply({.type = WRITE_ACK, .id = reg.id, .round = round}, sender_addr);
  }
}

bool rb_reg_cover_round(rb_reg &reg, uint32_t round)
{
  if ((reg.flags & RB_REG_DELETED) != 0) {
    return false;
  }
  return reg.accepted.read_round >= round || promise(reg, round, cons_service.node_id);
}

int rb_reg_send_reply(const rb_reg_message &reply, uint32_t destination)
{
  uint8_t *message = rb_reg_message_new(reply);
  if (message == nullptr) {
    return -1;
  }
  cons_msg_send(message, RB_REG_CHANNEL, reply.id, destination, 0, 0);
  return 0;
}
