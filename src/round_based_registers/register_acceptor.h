/// The acceptor: what this node has promised and accepted for a register. It saves before it answers.
#pragma once

#include "common/thread_safety.h"
#include "round_based_registers/register_messages.h"
#include "round_based_registers/register_table.h"

/// Answers one request. If the save fails, nothing is sent and memory keeps the rounds and the value of the file.
void rb_reg_accept_read(rb_reg &reg, const rb_reg_message &request, uint32_t sender, uint32_t sender_addr)
    CONS_REQUIRES(reg.lock);
void rb_reg_accept_write(rb_reg &reg, const rb_reg_message &request, uint32_t sender, uint32_t sender_addr)
    CONS_REQUIRES(reg.lock);

/// Makes sure that this node's own durable promise is at least `round`. Returns false if it cannot be saved or the
/// register is retired.
bool rb_reg_cover_round(rb_reg &reg, uint32_t round) CONS_REQUIRES(reg.lock);

/// Sends an answer once. Returns 0, or -1 if memory runs out.
int rb_reg_send_reply(const rb_reg_message &reply, uint32_t destination);
