/// Judges whether the payload of a decided entry is lost. Events go in, some with their time; judge() gives the
/// verdict.
///
/// A node *lacks* the entry if it answered this node's last request with MISSING and has said since, by DECIDE, that it
/// knows no newer decision. MISSING alone proves nothing, for a node that has gone on to the next log drops the
/// payloads of the old one. The latest of DATA, COMPLETE and MISSING counts.
///
/// The entry is *lost*
/// - when every other node lacks it, or
/// - when this node and those that lack it are a quorum (without this one if it has a file of it that it cannot read)
///   and each of the rest has been silent through 30 requests, a
///   second apart, each answered by such a quorum. A second in which the quorum did not answer, or in which this node
///   did not run, counts nothing.
/// and only while channel 4 is idle: since the last request no decision came for 100 ms, and no message that one may
/// wait behind is being handled. Silence belongs to nodes, not to entries: a node that is heard ends it.
///
/// No lock, no clock, no input or output. Times are monotonic, in microseconds.
#pragma once

#include <cstdint>

#include "common/id_batch.h"

class loss_judge
{
public:
  static constexpr int64_t REQUEST_PERIOD_US = 1000000;
  static constexpr int64_t IDLE_US = 100000;
  static constexpr uint32_t SILENT_REQUESTS = 30;
  /// The pull-thread looks at least this often while it misses an entry; a longer gap means that it did not run.
  static constexpr int64_t LOOK_PERIOD_US = 100000;
  static constexpr int64_t GAP_US = 5 * LOOK_PERIOD_US;

  struct verdict {
    bool is_lost;
    int64_t look_again_us;  ///< from now; at least 0
  };

  /// What the pull-thread is to do, which lacks an entry, or holds it and cannot read it.
  struct advice {
    bool is_lost;
    bool is_request_due;
    uint32_t nodes_without_word;  ///< bit n - 1 = node n; since the last request
    int64_t look_again_us;        ///< as in the verdict
  };

  /// Forgets everything; node numbers are 1 to node_count.
  void start(uint32_t node_count, uint32_t own_node);

  /// What the pull-thread does.
  /// The entry that comes next is missing, or is_held: on this node's disk, but unreadable. The same again changes
  /// nothing.
  void seeks(id_entry entry, bool is_held = false);
  void looked(int64_t now_us);                                ///< it runs
  void requested(int64_t now_us);                             ///< a request for the entry went out
  advice look(id_entry entry, bool is_held, int64_t now_us);  ///< seeks and runs

  /// What the nodes do. A node out of range is ignored.
  void heard(uint32_t node);                              ///< the node showed that it is alive
  void holds(uint32_t node, id_entry entry);              ///< DATA or COMPLETE
  bool lacks(uint32_t node, id_entry entry);              ///< MISSING; returns whether it is the entry sought
  void is_not_ahead(uint32_t node);                       ///< DECIDE with a number not above this node's
  void message_begins() { ++in_hand_; }                   ///< channel 4
  void message_ends() { --in_hand_; }                     ///< channel 4
  void decided(int64_t now_us) { decided_us_ = now_us; }  ///< a DECIDE was adopted

  [[nodiscard]] bool is_request_due(int64_t now_us) const;
  /// Nodes that answered MISSING but did not say which decision they know: bit n - 1 = node n.
  [[nodiscard]] uint32_t nodes_without_word() const;
  [[nodiscard]] verdict judge(int64_t now_us) const;

private:
  struct node_view {
    bool is_missing = false;       // answered the last request with MISSING
    bool has_word = false;         // and has said since that it is not ahead
    bool is_heard = false;         // since the last request
    uint32_t silent_requests = 0;  // counted requests since it was last heard
  };
  node_view *other(uint32_t node);
  [[nodiscard]] bool is_other(uint32_t index) const { return index + 1 != own_node_; }
  [[nodiscard]] bool is_lacking(uint32_t index) const { return nodes_[index].is_missing && nodes_[index].has_word; }
  [[nodiscard]] uint32_t lacking_count() const;
  [[nodiscard]] bool has_quorum_answered() const;
  [[nodiscard]] bool are_the_rest_silent() const;
  void forget_answers();

  uint32_t node_count_ = 0;
  uint32_t own_node_ = 0;
  node_view nodes_[NODES_MAX];
  id_entry entry_;
  bool is_held_ = false;
  int64_t request_us_ = 0;  // 0: none for this entry
  int64_t looked_us_ = 0;
  int64_t resumed_us_ = 0;  // end of the last gap
  int64_t decided_us_ = 0;
  uint32_t in_hand_ = 0;
};
