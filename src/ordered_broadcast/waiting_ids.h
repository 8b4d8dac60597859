/// The identifiers that wait to be ordered. One per node waits at a time. A follower forwards its own to the leader and
/// ignores others. The leader hands them to the proposer one by one.
///
/// The highest ordinary identifier seen decided is remembered per node. No identifier at or below it waits, is
/// forwarded or is handed over again.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"
#include "payload_dissemination/state_marks.h"

class waiting_ids
{
public:
  /// Forgets all: nothing waits and nothing was seen decided. Only while no thread of the protocol exists.
  void clear() CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock);

  /// This node's waiting identifier; 0 = none.
  uint32_t own() const CONS_REQUIRES(paxos.forward_lock);
  bool is_decided(id_entry entry) const CONS_REQUIRES(paxos.forward_lock);
  /// The identifier that the proposer must decide next; msg_id 0 = none.
  id_entry next_proposal() const CONS_REQUIRES(paxos.propose_lock) { return next_proposal_; }

  /// An identifier of this node enters. The caller knows that no other one of this node waits.
  void enter(uint32_t own_id) CONS_REQUIRES(paxos.forward_lock);

  /// Another node forwards its identifier. Returns false, with nothing changed, if one of that node waits already, if
  /// this one was seen decided, or if it is this node's own, which only enter() takes.
  bool forwarded(id_entry entry) CONS_REQUIRES(paxos.forward_lock);

  /// Queues a repeated FORWARD of this node's identifier in place of the last one. Returns false if it could not be
  /// queued.
  bool forward_own() CONS_REQUIRES(paxos.forward_lock);
  void withdraw_forward() CONS_REQUIRES(paxos.forward_lock);

  /// Per node (id - 1): the highest ordinary identifier seen decided. Any thread. A decision is included before the
  /// proposer may start the next one.
  std::array<uint32_t, NODES_MAX> done_ids() const;

  /// Remembers as decided what the marks of a log's snapshot name.
  void seen_decided_before(const state_marks &marks) CONS_REQUIRES(paxos.forward_lock);

  /// Remembers as decided the log's ordinary entries, that is all but the first. No waiting identifier leaves.
  void seen_decided(const id_batch &log) CONS_REQUIRES(paxos.forward_lock);

  /// Removes waiting identifiers that were seen decided. Removes this node's own only on the leader; on a follower its
  /// delivery does that.
  void retire_decided(bool is_leader) CONS_REQUIRES(paxos.forward_lock);

  /// Hands the next waiting identifier in turn to the proposer, unless it already has one.
  void hand_over() CONS_REQUIRES(paxos.forward_lock);

  /// Takes back the identifier handed to the proposer. It still waits.
  void take_back() CONS_REQUIRES(paxos.propose_lock) { next_proposal_ = {}; }

  /// The proposal of an identifier ended with this decision, which may name another identifier.
  void proposal_decided(id_entry decided) CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock);

  /// A decision of another node was adopted. With a gap before its log (installed_decision) a waiting identifier may
  /// have been decided unseen. Those of other nodes are forgotten, since their nodes forward them again. This node's
  /// own is given up, unless the log names it.
  void adopted(const id_batch &log, bool has_gap) CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock);

  /// A message of this node was delivered: its identifier leaves. So does a lower one, which can wait only after this
  /// node lost its disk.
  void delivered(uint32_t own_id) CONS_REQUIRES(paxos.forward_lock);

  /// This node's identifier leaves, since its call has its verdict.
  void settled() CONS_REQUIRES(paxos.forward_lock);

private:
  void give_up_own() CONS_REQUIRES(paxos.forward_lock, paxos.deliver_lock);
  void raise_done(id_entry entry) CONS_REQUIRES(paxos.forward_lock);

  uint32_t pending_id_[NODES_MAX] CONS_GUARDED_BY(paxos.forward_lock) = {};  // per node (id - 1), 0 = none
  std::atomic<uint32_t> done_id_[NODES_MAX] = {};  // written with forward_lock; never falls while the protocol runs
  uint32_t last_served_ CONS_GUARDED_BY(paxos.forward_lock) = 0;     // index of the node handed over last
  bool forward_active_ CONS_GUARDED_BY(paxos.forward_lock) = false;  // a FORWARD of this node is queued
  id_entry next_proposal_ CONS_GUARDED_BY(paxos.propose_lock);       // set with forward_lock held too
};
inline constinit waiting_ids paxos_waiting;
