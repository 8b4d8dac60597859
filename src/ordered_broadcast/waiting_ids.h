/// The identifiers that wait to be ordered, from their entry to their decision. One per node waits at a time; a
/// follower serves its own only and forwards it to the leader. The leader hands one after the other to the proposer.
///
/// What was seen decided is remembered as the highest ordinary identifier per node: nothing at or below it waits,
/// is forwarded or handed over again.
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
  /// Nothing waits, nothing was seen decided: no thread of the protocol exists.
  void clear() CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock);

  /// This node's identifier that waits; 0 = none.
  uint32_t own() const CONS_REQUIRES(paxos.forward_lock);
  bool is_decided(id_entry entry) const CONS_REQUIRES(paxos.forward_lock);
  /// What the proposer is to decide next; msg_id 0 = nothing.
  id_entry next_proposal() const CONS_REQUIRES(paxos.propose_lock) { return next_proposal_; }

  /// An identifier of this node enters; none of its own waits.
  void enter(uint32_t own_id) CONS_REQUIRES(paxos.forward_lock);

  /// Another node forwards its own. False if nothing changes: one of that node waits already, this one was seen
  /// decided, or it would be ours, which only this node enters.
  bool forwarded(id_entry entry) CONS_REQUIRES(paxos.forward_lock);

  /// Sends this node's identifier to the leader, repeated, in place of what was sent before. False if it could not be
  /// queued.
  bool forward_own() CONS_REQUIRES(paxos.forward_lock);
  void withdraw_forward() CONS_REQUIRES(paxos.forward_lock);

  /// Per node (id - 1): the highest ordinary identifier seen decided. Any thread: what a decision added is there before
  /// the proposer may start after it.
  std::array<uint32_t, NODES_MAX> done_ids() const;

  /// What was decided before the log that this state begins.
  void seen_decided_before(const state_marks &marks) CONS_REQUIRES(paxos.forward_lock);

  /// The log's ordinary entries, that is all but the first, are decided. Frees nothing.
  void seen_decided(const id_batch &log) CONS_REQUIRES(paxos.forward_lock);

  /// Frees what waits although it was seen decided; this node's own one only on the leader, for on a follower its
  /// delivery does that.
  void retire_decided(bool is_leader) CONS_REQUIRES(paxos.forward_lock);

  /// Hands the next one in turn to the proposer, unless that has one.
  void hand_over() CONS_REQUIRES(paxos.forward_lock);

  /// The proposer gets nothing; what it had been given still waits.
  void take_back() CONS_REQUIRES(paxos.propose_lock) { next_proposal_ = {}; }

  /// The proposal of an identifier ended with this decision, which may be another's.
  void proposal_decided(id_entry decided) CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock);

  /// A decision from elsewhere was adopted. With a gap before its log (installed_decision) what waits may have been
  /// decided unseen: others' are forgotten, for their nodes forward them again; this node's own is given up, unless the
  /// log names it.
  void adopted(const id_batch &log, bool has_gap) CONS_REQUIRES(paxos.forward_lock, paxos.propose_lock);

  /// A message of this node was delivered: it leaves, and so does one before it (of a node that lost its disk).
  void delivered(uint32_t own_id) CONS_REQUIRES(paxos.forward_lock);

  /// This node's identifier leaves: its call has its verdict.
  void settled() CONS_REQUIRES(paxos.forward_lock);

private:
  void give_up_own() CONS_REQUIRES(paxos.forward_lock, paxos.deliver_lock);
  void raise_done(id_entry entry) CONS_REQUIRES(paxos.forward_lock);

  uint32_t pending_id_[NODES_MAX] CONS_GUARDED_BY(paxos.forward_lock) = {};  // per node (id - 1), 0 = none
  std::atomic<uint32_t> done_id_[NODES_MAX] = {};  // written with forward_lock; never falls while the protocol runs
  uint32_t last_served_ CONS_GUARDED_BY(paxos.forward_lock) = 0;     // index of the node handed over last
  bool forward_active_ CONS_GUARDED_BY(paxos.forward_lock) = false;  // there is a FORWARD of ours to withdraw
  id_entry next_proposal_ CONS_GUARDED_BY(paxos.propose_lock);       // filled with forward_lock held too
};
inline constinit waiting_ids paxos_waiting;
