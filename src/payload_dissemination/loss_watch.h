/// The judge of losses, shared by the threads that feed it: the pull-thread and the receive hooks of channels 4 and 5.
/// `paxos_data_losses->heard(n)` holds the judge's lock for this one call. The lock is a leaf, held for a few
/// instructions only, so that no thread that feeds the judge waits for a transfer or a hook.
#pragma once

#include "common/cons_mutex.h"
#include "payload_dissemination/loss_judge.h"

class loss_watch
{
  class locked_judge
  {
  public:
    explicit locked_judge(loss_watch &watch) : lock_(watch.lock_), judge_(watch.judge_) {}
    loss_judge *operator->() { return &judge_; }

  private:
    cons_lock lock_;
    loss_judge &judge_;
  };

public:
  locked_judge operator->() { return locked_judge(*this); }

private:
  cons_mutex lock_{lock_rank::leaf};
  loss_judge judge_ CONS_GUARDED_BY(lock_);
};
inline constinit loss_watch paxos_data_losses;
