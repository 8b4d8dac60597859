/// Isolation: a node that cannot load or save its state stops its service, on the thread that notices. Also the section
/// that serialises this with the host's lifecycle calls.
#pragma once

#include "common/cons_mutex.h"

/// Serialises init, start, stop, cleanup, configure and the helper of an isolation. Taken with no other lock held.
inline constinit cons_mutex lifecycle_lock{lock_rank::lifecycle};

/// What an isolation does to the layers above, handed in by them.
struct isolation_duties {
  /// Lets nothing more happen. Calls of vx_cons_distribute return within two seconds. Any thread, any lock; takes none.
  void (*halt)() = nullptr;
  void (*stop)() = nullptr;  ///< wakes and joins the remaining threads; called with lifecycle_lock and no other held
};
void isolation_init(const isolation_duties &duties) CONS_REQUIRES(lifecycle_lock);

/// Logs "Isolating from cluster ..." and halts the service at once, so that nothing more is delivered, sent or
/// accepted. The threads are woken and joined later: by the lifecycle call that runs on this thread if there is one,
/// else by a helper thread that holds no lock. If the helper cannot be created, a line says so and the next lifecycle
/// call does it. Any thread, any lock but leaves.
void paxos_isolate();

/// The scope of a lifecycle call. On entry and on exit it finishes a pending isolation and joins its helper.
class CONS_SCOPED_CAPABILITY lifecycle_section
{
public:
  lifecycle_section() CONS_ACQUIRE(lifecycle_lock);
  ~lifecycle_section() CONS_RELEASE();
  lifecycle_section(const lifecycle_section &) = delete;
  lifecycle_section &operator=(const lifecycle_section &) = delete;
};

/// Wakes and joins the threads that an isolation has halted, if any. An isolation may come at any time while the
/// threads run. So test first that the service is stopped, then call this to have it at rest.
void isolation_finish() CONS_REQUIRES(lifecycle_lock);

/// A start begins, and no thread of an earlier run is left. Forgets earlier isolations; a helper of theirs that comes
/// late finds nothing to do.
void isolation_begin_run() CONS_REQUIRES(lifecycle_lock);

/// Makes the service active, unless an isolation came since isolation_begin_run. Returns whether the service is active.
bool isolation_activate() CONS_REQUIRES(lifecycle_lock);
