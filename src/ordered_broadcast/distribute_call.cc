#include "ordered_broadcast/distribute_call.h"

#include "service/service_state.h"

distribute_call_scope::distribute_call_scope()
{
  cons_lock lock(paxos.deliver_lock);
  call_.next = paxos.calls;
  paxos.calls = &call_;
  if (paxos.stopped) {
    call_end(call_, -1);
  }
}

distribute_call_scope::~distribute_call_scope()
{
  bool has_entered = false;
  {
    cons_lock lock(paxos.deliver_lock);
    has_entered = call_.has_entered;
    distribute_call **link = &paxos.calls;
    while (*link != &call_) {
      link = &(*link)->next;
    }
    *link = call_.next;
  }
  if (!has_entered) {
    // A call with a higher identifier may wait for this one to enter the slot first.
    paxos.forward_free_cond.wake_all(paxos.forward_lock);
  }
}

void call_end(distribute_call &call, int verdict)
{
  if (!call.ended) {
    call.verdict = verdict;
    call.ended = true;
  }
}

void calls_end_all()
{
  for (distribute_call *call = paxos.calls; call != nullptr; call = call->next) {
    call_end(*call, -1);
  }
}

bool call_is_next(const distribute_call &call)
{
  for (const distribute_call *other = paxos.calls; other != nullptr; other = other->next) {
    if (other->id != 0 && other->id < call.id && !other->has_entered && !other->ended) {
      return false;
    }
  }
  return true;
}

void calls_delivered(uint32_t msg_id)
{
  for (distribute_call *call = paxos.calls; call != nullptr; call = call->next) {
    if (call->id == msg_id) {
      call_end(*call, 0);
    } else if (call->id != 0 && call->id < msg_id) {
      call_end(*call, -1);
    }
  }
}

void calls_give_up(uint32_t msg_id)
{
  for (distribute_call *call = paxos.calls; call != nullptr; call = call->next) {
    if (call->id == msg_id) {
      call_end(*call, -1);
    }
  }
}

void calls_mark_swallowed(const id_batch &old_batch, const id_batch &new_batch)
{
  const auto self = static_cast<uint8_t>(cons_service.node_id);
  for (distribute_call *call = paxos.calls; call != nullptr; call = call->next) {
    const bool is_swallowed =
        id_batch_find(&old_batch, call->id, self) > 0 && id_batch_find(&new_batch, call->id, self) < 0;
    if (!call->ended && (is_swallowed || call->swallowed_by.msg_id != 0)) {
      call->swallowed_by = id_batch_entry(new_batch, 0);
    }
  }
}

bool calls_settle_state(id_entry state, int verdict, uint32_t own_pending)
{
  bool is_own_pending = false;
  for (distribute_call *call = paxos.calls; call != nullptr; call = call->next) {
    if (!call->ended && call->swallowed_by == state) {
      call_end(*call, verdict);
      is_own_pending = is_own_pending || call->id == own_pending;
    }
  }
  return is_own_pending;
}
