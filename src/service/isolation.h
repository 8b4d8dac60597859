/// Isolation: a node that cannot load or save its state stops its service, on whatever thread notices; and the section
/// that serialises this with the host's lifecycle calls.
#pragma once

#include "common/cons_mutex.h"

/// Serialises start, stop, cleanup, configure and the helper of an isolation. Taken with no other lock held.
inline constinit cons_mutex lifecycle_lock{lock_rank::lifecycle};

/// What an isolation does to the layers above, handed in by them.
struct isolation_duties {
  /// Lets nothing more happen; calls of vx_cons_distribute return within two seconds. Any thread, any lock: takes none.
  void (*halt)() = nullptr;
  void (*stop)() = nullptr;  ///< wakes and joins what is left; lifecycle_lock held, no other
};
void isolation_init(const isolation_duties &duties) CONS_REQUIRES(lifecycle_lock);

/// Logs "Isolating from cluster ..." and lowers every flag at once, so that nothing more is delivered, sent or
/// accepted. Waking and joining is left to a helper thread that holds nothing, or to the lifecycle call that is
/// running on this very thread; if the helper cannot be created (a line says so), to the next lifecycle call. Any
/// thread, any lock but leaves.
void paxos_isolate();

/// The scope of a lifecycle call. On entry and exit an isolation that is not finished gets finished, and its helper
/// joined.
class CONS_SCOPED_CAPABILITY lifecycle_section
{
public:
  lifecycle_section() CONS_ACQUIRE(lifecycle_lock);
  ~lifecycle_section() CONS_RELEASE();
  lifecycle_section(const lifecycle_section &) = delete;
  lifecycle_section &operator=(const lifecycle_section &) = delete;
};

/// Wakes and joins what an isolation has left, if there is anything. One may come at any time while the threads run, so
/// who finds the service stopped and needs it at rest calls this behind the test.
void isolation_finish() CONS_REQUIRES(lifecycle_lock);

/// A start begins, with no thread of an earlier run left: forgets earlier isolations, whose helper, if it comes late,
/// finds nothing to do.
void isolation_begin_run() CONS_REQUIRES(lifecycle_lock);

/// Makes the service active unless an isolation came since isolation_begin_run. Returns whether it did.
bool isolation_activate() CONS_REQUIRES(lifecycle_lock);
