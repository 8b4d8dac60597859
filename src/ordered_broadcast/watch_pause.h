/// The pause of the leader-watch-thread between two passes. No other thread waits here.
#pragma once

#include "common/cons_mutex.h"

struct watch_pause {
  cons_mutex lock{lock_rank::leaf};
  cons_cond wake_cond;
};
inline constinit watch_pause paxos_watch_pause;

/// Makes the pause check whether it must end. Any thread, any lock but leaves.
inline void paxos_leader_watch_wake()
{
  paxos_watch_pause.wake_cond.wake_all(paxos_watch_pause.lock);
}
