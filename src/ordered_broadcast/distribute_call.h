/// The open calls of vx_cons_distribute. Each gets one verdict, which never changes.
///
/// A call is settled by the delivery of exactly its identifier, or of the snapshot that swallowed it. It is given up
/// (-1) when the log that may have held it is gone, and at stop. Guarded by paxos.deliver_lock. A function that gives
/// verdicts leaves it to its caller to broadcast the conditions on which the calls wait.
#pragma once

#include <atomic>
#include <cstdint>

#include "ordered_broadcast/paxos_state.h"

struct distribute_call {
  std::atomic<uint32_t> id{0};     // 0 until the identifier is taken
  std::atomic<bool> ended{false};  // a verdict was given
  int verdict CONS_GUARDED_BY(paxos.deliver_lock) = -1;
  bool has_entered CONS_GUARDED_BY(paxos.deliver_lock) = false;  // its identifier was in this node's slot
  id_entry swallowed_by CONS_GUARDED_BY(paxos.deliver_lock);     // snapshot that contains this message's effect
  distribute_call *next CONS_GUARDED_BY(paxos.deliver_lock) = nullptr;
};

/// Opens a call for a scope. If the protocol is stopped, the call ends at once with -1.
class distribute_call_scope
{
public:
  distribute_call_scope();
  ~distribute_call_scope();
  distribute_call_scope(const distribute_call_scope &) = delete;
  distribute_call_scope &operator=(const distribute_call_scope &) = delete;
  distribute_call &call() { return call_; }

private:
  distribute_call call_;
};

void call_end(distribute_call &call, int verdict) CONS_REQUIRES(paxos.deliver_lock);
void calls_end_all() CONS_REQUIRES(paxos.deliver_lock);

/// Identifiers enter the node's slot in increasing order. Returns whether no open call with a lower one still has to
/// enter.
bool call_is_next(const distribute_call &call) CONS_REQUIRES(paxos.deliver_lock);

/// A message of this node was delivered: its call gets 0. Calls with a lower identifier, which exist only after the
/// node lost its disk, get -1.
void calls_delivered(uint32_t msg_id) CONS_REQUIRES(paxos.deliver_lock);

/// Gives up the call of this message: it gets -1.
void calls_give_up(uint32_t msg_id) CONS_REQUIRES(paxos.deliver_lock);

/// A log with another first entry replaces the old one. An ordinary entry of the old log that the new one does not name
/// is part of the new log's snapshot: marks its call.
void calls_mark_swallowed(const id_batch &old_batch, const id_batch &new_batch) CONS_REQUIRES(paxos.deliver_lock);

/// The snapshot was delivered (verdict 0) or skipped as lost (-1): settles the calls marked with it. Returns whether
/// the call with `own_pending`, if that is not 0, was one of them.
bool calls_settle_state(id_entry state, int verdict, uint32_t own_pending) CONS_REQUIRES(paxos.deliver_lock);
