#include "ordered_broadcast/distribute.h"

#include "ordered_broadcast/distribute_call.h"
#include "ordered_broadcast/message_ids.h"
#include "ordered_broadcast/paxos_state.h"
#include "ordered_broadcast/waiting_ids.h"
#include "payload_dissemination/paxos_data.h"
#include "payload_dissemination/payload_files.h"
#include "payload_dissemination/payload_table.h"
#include "service/identity.h"
#include "vx_cons.h"
#include "vx_host.h"

#include <cstdlib>

namespace
{

payload_buf *copy_payload(const uint8_t *bytes, uint32_t length, uint32_t type)
{
  if (length > VX_CONS_PAYLOAD_MAX) {
    return nullptr;
  }
  payload_buf *payload = payload_buf_new(1, length, 0);
  if (payload != nullptr) {
    payload_buf_append(payload, 0, bytes, length, type);
  }
  return payload;
}

// Returns the identifier, or 0 if there is none or the payload could not be stored.
uint32_t store_payload(payload_buf *payload, distribute_call &call)
{
  const uint32_t id = call.ended ? 0 : msg_id_next(false, &call.id);
  if (id == 0) {
    std::free(payload);
    return 0;
  }
  const id_entry name = own_entry(id);
  if (!paxos_data_hash_entry(payload_entry_new(payload), id, name.sender)) {
    return 0;
  }
  if (!payload_files_make_durable(name)) {
    paxos_data_unhash_entry(id, name.sender);
    return 0;
  }
  return id;
}

// Waits for this node's slot and fills it, unless the call has ended.
void enter_slot(distribute_call &call)
{
  cons_lock lock(paxos.forward_lock);
  while (!paxos.stopped && !call.ended) {
    cons_lock deliver_lock(paxos.deliver_lock);
    if (paxos_waiting.own() != 0 || !call_is_next(call)) {
      deliver_lock.unlock();
      paxos.forward_free_cond.wait(paxos.forward_lock);
      continue;
    }
    if (call.ended) {
      return;
    }
    if (paxos_waiting.is_decided(own_entry(call.id))) {
      call_end(call, -1);
      return;
    }
    call.has_entered = true;
    paxos_waiting.enter(call.id);
    vx_log("CONS: PAXOS: RECEIVE (id=%u)\n", call.id.load());
    return;
  }
}

int wait_for_verdict(distribute_call &call)
{
  cons_lock lock(paxos.deliver_lock);
  while (!paxos.stopped && !call.ended) {
    paxos.deliver_cond.wait(paxos.deliver_lock);
  }
  call_end(call, -1);
  return call.verdict;
}

}  // namespace

int paxos_distribute(const uint8_t *bytes, uint32_t length, uint32_t type)
{
  if (bytes == nullptr || length == 0) {
    return paxos.stopped ? -1 : 0;
  }
  distribute_call_scope scope;
  distribute_call &call = scope.call();
  if (call.ended) {
    return -1;
  }
  payload_buf *payload = copy_payload(bytes, length, type);
  if (payload == nullptr) {
    return -1;
  }
  const uint32_t id = store_payload(payload, call);
  if (id == 0) {
    return -1;
  }
  vx_log("CONS: PAXOS: DISTRIBUTE (id=%u)\n", id);
  paxos_data_offer(id, call.ended);
  enter_slot(call);
  return wait_for_verdict(call);
}
