/// The judge of losses, shared by the threads that feed it: the pull-thread and the receive hooks of channels 4 and 5.
/// Its lock is a leaf, held for a few instructions only, so that no thread that feeds it waits for a transfer or a
/// hook.
#pragma once

#include "common/cons_mutex.h"
#include "common/monotonic_clock.h"
#include "payload_dissemination/loss_judge.h"

class loss_watch
{
public:
  void start(uint32_t node_count, uint32_t own_node)
  {
    cons_lock lock(lock_);
    judge_.start(node_count, own_node);
  }
  void heard(uint32_t node)
  {
    cons_lock lock(lock_);
    judge_.heard(node);
  }
  void holds(uint32_t node, id_entry entry)
  {
    cons_lock lock(lock_);
    judge_.holds(node, entry);
  }
  /// Returns whether the pull-thread seeks this entry.
  bool lacks(uint32_t node, id_entry entry)
  {
    cons_lock lock(lock_);
    judge_.lacks(node, entry);
    return judge_.is_sought(entry);
  }
  void is_not_ahead(uint32_t node)
  {
    cons_lock lock(lock_);
    judge_.is_not_ahead(node);
  }
  void message_begins()
  {
    cons_lock lock(lock_);
    judge_.message_begins();
  }
  void message_ends(bool is_new_decision)
  {
    cons_lock lock(lock_);
    if (is_new_decision) {
      judge_.decided(monotonic_us());
    }
    judge_.message_ends();
  }
  void requested()
  {
    cons_lock lock(lock_);
    judge_.requested(monotonic_us());
  }

  /// What the pull-thread is to do, which lacks `entry`, or holds it and cannot read it.
  struct advice {
    bool is_lost;
    bool is_request_due;
    uint32_t nodes_without_word;  ///< bit n - 1 = node n; since the last request
    int64_t look_again_us;
  };
  advice look(id_entry entry, bool is_held)
  {
    cons_lock lock(lock_);
    const int64_t now_us = monotonic_us();
    judge_.seeks(entry, is_held);
    judge_.looked(now_us);
    const loss_judge::verdict verdict = judge_.judge(now_us);
    return {.is_lost = verdict.is_lost,
            .is_request_due = judge_.is_request_due(now_us),
            .nodes_without_word = judge_.nodes_without_word(),
            .look_again_us = verdict.look_again_us};
  }

private:
  cons_mutex lock_{lock_rank::leaf};
  loss_judge judge_ CONS_GUARDED_BY(lock_);
};
