#include "round_based_registers/consensus.h"

#include <new>

#include "round_based_registers/register_table.h"
#include "service/service_state.h"
#include "vx_host.h"

consensus *consensus_create(uint32_t id)
{
  auto *instance = new (std::nothrow) consensus;
  if (instance == nullptr) {
    return nullptr;
  }
  if (rb_reg_create(id) != 0) {
    delete instance;
    return nullptr;
  }
  rb_reg_clear_cancel(id);
  instance->id = id;
  return instance;
}

void consensus_free(consensus *instance)
{
  delete instance;
}

uint32_t consensus_first_round(const consensus &instance)
{
  return rb_reg_first_round(instance.id, cons_service.node_id, cons_service.node_count);
}

int consensus_propose(consensus &instance, uint32_t round, const cons_value &proposal, cons_value &decision)
{
  vx_log("CONS: CONSENSOUS: propose ... (batch_id=%u, round=%u)\n", instance.id, round);
  int result = rb_reg_read(instance.id, round, instance.value);
  if (result == RB_REG_COMMITTED && instance.value.empty() && !instance.value.assign(proposal.bytes())) {
    result = RB_REG_ERROR;
  }
  if (result == RB_REG_COMMITTED) {
    result = rb_reg_write(instance.id, round, instance.value);
  }
  if (result == RB_REG_COMMITTED && !decision.assign(instance.value.bytes())) {
    result = RB_REG_ERROR;  // decided, but there is no memory for the value: the next attempt reads it back
  }
  if (result == RB_REG_COMMITTED) {
    vx_log("CONS: CONSENSOUS: proposal commited (batch_id=%u, round=%u)\n", instance.id, round);
    return result;
  }
  if (!decision.assign(proposal.bytes())) {
    decision.clear();
  }
  vx_log("CONS: CONSENSOUS: proposal %s (batch_id=%u, round=%u)\n",
         result == RB_REG_CANCELLED ? "cancelled" : "aborted", instance.id, round);
  return result;
}

void consensus_cancel(const consensus *instance)
{
  if (instance != nullptr) {
    rb_reg_cancel(instance->id);
  }
}
