/// The last decision of this node: its number and its log, in memory and on disk. Every decision, this node's own as
/// well as another's, enters through install.
///
///   /flashdisk/cons/paxos_decide, 1258 bytes, little-endian
///   offset  width  field
///   0       4      number of the decision, 0 = none
///   4       1254   log
#pragma once

#include <cstdint>
#include <optional>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"

/// A decision on its way to the payload layer, copied under its locks.
struct installed_decision {
  uint32_t number = 0;
  id_batch batch;
  id_entry last_delivered;
  /// Decisions were made between the log before and this one that neither names: they are inside the state with which
  /// this log begins.
  bool has_gap = false;
};

/// Hands it over. Waits while a payload is being delivered: hold no lock.
void paxos_hand_over(const installed_decision &decision);

class decided_log
{
public:
  uint32_t number() const CONS_REQUIRES(paxos.propose_lock) { return number_; }
  const id_batch &batch() const CONS_REQUIRES(paxos.propose_lock) { return batch_; }
  /// As it is now, for the hand-over at start.
  installed_decision last() const CONS_REQUIRES(paxos.propose_lock);

  /// Reads the file and tells the registers and the identifiers what is decided. Returns 0, or -1 after isolating the
  /// node, with nothing changed.
  int load();

  /// Makes the file unreadable, so that no start goes on with a mixture of two lives; reset writes it anew. Returns 0,
  /// or -1 after isolating the node.
  int forget();

  /// The log of a new cluster, saved. Returns 0, or -1 after isolating the node.
  int reset();

  /// Decision `number`, which is above ours, is made: saves it, retires its registers, announces it, marks the calls
  /// that its state swallows. Nothing after isolating the node, if it could not be saved: memory is ahead of the disk
  /// then, and no one acts on it.
  std::optional<installed_decision> install(uint32_t number, const id_batch &batch) CONS_REQUIRES(paxos.propose_lock);

  /// Replaces this node's queued DECIDE by one of this decision, repeated to all nodes; a follower, a node that is
  /// stopped or one without a decision only withdraws.
  void announce() CONS_REQUIRES(paxos.propose_lock);
  /// Announces again if there was no memory for it.
  void retry_announce() CONS_REQUIRES(paxos.propose_lock);
  void withdraw() const CONS_REQUIRES(paxos.propose_lock);

  /// Sends the decision once to one node.
  void send_to(uint32_t node_addr) const CONS_REQUIRES(paxos.propose_lock);

private:
  bool save() CONS_REQUIRES(paxos.propose_lock);
  void check_number_grows() const CONS_REQUIRES(paxos.propose_lock);

  uint32_t number_ CONS_GUARDED_BY(paxos.propose_lock) = 0;          // 0 = none
  uint32_t durable_number_ CONS_GUARDED_BY(paxos.propose_lock) = 0;  // what the file holds
  id_batch batch_ CONS_GUARDED_BY(paxos.propose_lock);
  bool is_unsent_ CONS_GUARDED_BY(paxos.propose_lock) = false;
};
inline constinit decided_log paxos_log;
