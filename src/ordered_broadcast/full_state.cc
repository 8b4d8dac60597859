#include "ordered_broadcast/full_state.h"

#include <cstdlib>

#include "ordered_broadcast/data_hooks.h"
#include "ordered_broadcast/decided_log.h"
#include "ordered_broadcast/waiting_ids.h"
#include "payload_dissemination/payload_table.h"
#include "payload_dissemination/state_marks.h"
#include "service/host_hook.h"
#include "service/service_state.h"

namespace
{

struct state_buffer {
  uint8_t *bytes = nullptr;
  uint32_t length = 0;
};

// A state that does not fit after those of the lower types counts as no state.
state_buffer take_state(uint32_t type, uint64_t room)
{
  state_buffer state;
  const vx_cons_get_state_hook get_state = data_hooks.slots[type].get_state;
  if (get_state == nullptr) {
    return {};
  }
  const host_hook_call call;
  if (get_state(&state.bytes, &state.length) != 0) {
    return {};
  }
  if (state.length > room || state.bytes == nullptr) {
    std::free(state.bytes);
    return {};
  }
  return state;
}

void paxos_carry_undelivered(id_batch &target) CONS_REQUIRES(paxos.propose_lock, paxos.deliver_lock)
{
  const id_entry last = paxos.last_delivered;
  bool is_found = false;
  id_batch_foreach(&paxos_log.batch(), [&](uint32_t msg_id, uint8_t sender) {
    if (is_found) {
      id_batch_add(&target, msg_id, sender);
    } else {
      is_found = last == id_entry{.sender = sender, .msg_id = msg_id};
    }
  });
}

}  // namespace

payload_buf *paxos_full_state(uint32_t number)
{
  const bool has_marks = cons_service.durable_payloads;
  const uint32_t records = CONS_DATA_TYPES + (has_marks ? 1 : 0);
  const uint32_t marks_size = has_marks ? STATE_MARKS_SIZE : 0;
  uint64_t room = UINT32_MAX - PAYLOAD_HEADER_SIZE - records * RECORD_HEADER_SIZE - marks_size;
  uint64_t sum = marks_size;
  state_buffer states[CONS_DATA_TYPES];
  for (uint32_t type = 0; type < CONS_DATA_TYPES; ++type) {
    states[type] = take_state(type, room);
    room -= states[type].length;
    sum += states[type].length;
  }
  payload_buf *payload = payload_buf_new(records, sum, 1);
  uint32_t offset = 0;
  for (uint32_t type = 0; type < CONS_DATA_TYPES; ++type) {
    if (payload != nullptr) {
      offset = payload_buf_append(payload, offset, states[type].bytes, states[type].length, type);
    }
    std::free(states[type].bytes);
  }
  if (payload != nullptr && has_marks) {
    uint8_t marks[STATE_MARKS_SIZE];
    state_marks_put(marks, {.number = number, .done_id = paxos_waiting.done_ids()});
    payload_buf_append(payload, offset, marks, sizeof marks, STATE_MARKS_TYPE);
  }
  return payload;
}

bool paxos_begin_log(id_batch &batch, id_entry state)
{
  cons_lock lock(paxos.deliver_lock);
  if (!paxos_data_hash_entry(payload_entry_new(paxos_full_state(paxos_log.number() + 1)), state.msg_id, state.sender)) {
    return false;  // the layer stopped, or no memory: nobody could ever fetch it
  }
  batch = id_batch_of(state);
  if (cons_service.durable_payloads) {
    return true;
  }
  paxos_carry_undelivered(batch);
  if (id_batch_count(batch) == ID_BATCH_MAX) {
    // Only the last log's snapshot was delivered here, and all other entries were lost. A log that begins full would
    // force the next roll-over at once.
    batch = id_batch_of(state);
  }
  return true;
}
