/// The last decision that this node knows: its number and its log, in memory and on disk. Every decision enters through
/// install, whether this node made it or another.
///
///   /flashdisk/cons/paxos_decide, 1258 bytes, little-endian
///   offset  width  field
///   0       4      decision number, 0 = none
///   4       1254   log
#pragma once

#include <cstdint>
#include <optional>

#include "common/id_batch.h"
#include "ordered_broadcast/paxos_state.h"

/// A decision on its way to the payload layer: a copy made under the locks.
struct installed_decision {
  uint32_t number = 0;
  id_batch batch;
  id_entry last_delivered;
  /// Some decisions between the previous log and this one are named by neither. Their effect is in the snapshot that
  /// begins this log.
  bool has_gap = false;
};

/// Hands the decision to the payload layer. Waits while a payload is being delivered: hold no lock.
void paxos_hand_over(const installed_decision &decision);

class decided_log
{
public:
  uint32_t number() const CONS_REQUIRES(paxos.propose_lock) { return number_; }
  const id_batch &batch() const CONS_REQUIRES(paxos.propose_lock) { return batch_; }
  /// The last decision as it is now, for the hand-over at start.
  installed_decision last() const CONS_REQUIRES(paxos.propose_lock);

  /// Reads the file. Sets the registers' floor and raises this node's message ids to match. Returns 0, or -1 with
  /// nothing changed, after isolating the node.
  int load();

  /// Deletes the file, so that no start can mix the records of two cluster lives. reset writes it anew. Returns 0, or
  /// -1 after isolating the node.
  int forget();

  /// Saves the empty log of a new cluster. Returns 0, or -1 after isolating the node.
  int reset();

  /// Makes decision `number`, which must be higher than the last, the last one: saves it, retires its registers,
  /// announces it, and marks the calls that its snapshot swallows. If the save fails, isolates the node and returns
  /// nothing. Memory is then ahead of the disk, and no thread acts on it.
  std::optional<installed_decision> install(uint32_t number, const id_batch &batch) CONS_REQUIRES(paxos.propose_lock);

  /// Replaces this node's queued DECIDE by one with this decision, repeated to all nodes. A follower, a stopped node or
  /// one without a decision only withdraws the old one.
  void announce() CONS_REQUIRES(paxos.propose_lock);
  /// Announces again if the last DECIDE could not be queued.
  void retry_announce() CONS_REQUIRES(paxos.propose_lock);
  void withdraw() const CONS_REQUIRES(paxos.propose_lock);

  /// Sends the decision once to one node.
  void send_to(uint32_t node_addr) const CONS_REQUIRES(paxos.propose_lock);

private:
  bool save() CONS_REQUIRES(paxos.propose_lock);
  void check_number_grows() const CONS_REQUIRES(paxos.propose_lock);

  uint32_t number_ CONS_GUARDED_BY(paxos.propose_lock) = 0;          // 0 = none
  uint32_t durable_number_ CONS_GUARDED_BY(paxos.propose_lock) = 0;  // the number in the file
  id_batch batch_ CONS_GUARDED_BY(paxos.propose_lock);
  bool is_unsent_ CONS_GUARDED_BY(paxos.propose_lock) = false;
};
inline constinit decided_log paxos_log;
