#include "service/isolation.h"

#include "service/library_thread.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

struct isolation_state {
  cons_mutex lock{lock_rank::leaf};
  bool is_isolated CONS_GUARDED_BY(lock) = false;       // since the last start began
  bool is_unfinished CONS_GUARDED_BY(lock) = false;     // the run's threads are not woken and joined yet
  bool is_helper_active CONS_GUARDED_BY(lock) = false;  // the helper will read is_unfinished again
  bool helper_exists CONS_GUARDED_BY(lock) = false;     // the helper must be joined
  pthread_t helper CONS_GUARDED_BY(lock){};
  isolation_duties duties CONS_GUARDED_BY(lock);
};
constinit isolation_state isolation;

thread_local bool inside_lifecycle_section;

void *helper_thread(void *)
{
  for (;;) {
    {
      cons_lock lock(lifecycle_lock);
      isolation_finish();
    }
    cons_lock lock(isolation.lock);
    if (!isolation.is_unfinished) {
      isolation.is_helper_active = false;
      return nullptr;
    }
  }
}

// Returns false if there is no helper. The next lifecycle call does its work then.
bool create_helper() CONS_REQUIRES(isolation.lock)
{
  if (isolation.helper_exists) {
    pthread_join(isolation.helper, nullptr);  // it has done its work and is about to return
  }
  isolation.helper_exists =
      kesh_pthread_create(&isolation.helper, nullptr, LIBRARY_STACK_SIZE, helper_thread, nullptr) == 0;
  isolation.is_helper_active = isolation.helper_exists;
  return isolation.helper_exists;
}

// Returns false if the isolation stays unfinished until the host's next lifecycle call.
bool begin_isolation()
{
  cons_lock lock(isolation.lock);
  isolation.is_isolated = true;
  isolation.is_unfinished = true;
  cons_service.stopped = true;
  if (isolation.duties.halt != nullptr) {
    isolation.duties.halt();
  }
  return inside_lifecycle_section || isolation.is_helper_active || create_helper();
}

void join_helper() CONS_EXCLUDES(lifecycle_lock)
{
  pthread_t helper;
  {
    cons_lock lock(isolation.lock);
    if (!isolation.helper_exists) {
      return;
    }
    isolation.helper_exists = false;
    helper = isolation.helper;
  }
  pthread_join(helper, nullptr);
}

}  // namespace

void isolation_init(const isolation_duties &duties)
{
  cons_lock lock(isolation.lock);
  isolation.duties = duties;
}

void paxos_isolate()
{
  vx_log("Isolating from cluster ...\n");
  if (!begin_isolation()) {
    vx_log("%s(): Cannot create isolation-thread.\n", "paxos_isolate");
  }
}

void isolation_finish()
{
  void (*stop)() = nullptr;
  {
    cons_lock lock(isolation.lock);
    if (!isolation.is_unfinished) {
      return;
    }
    isolation.is_unfinished = false;
    stop = isolation.duties.stop;
  }
  if (stop != nullptr) {
    stop();
  }
}

lifecycle_section::lifecycle_section()
{
  join_helper();
  lifecycle_lock.lock();
  inside_lifecycle_section = true;
  isolation_finish();
}

lifecycle_section::~lifecycle_section()
{
  isolation_finish();
  inside_lifecycle_section = false;
  lifecycle_lock.unlock();
  join_helper();
}

void isolation_begin_run()
{
  cons_lock lock(isolation.lock);
  isolation.is_isolated = false;
  isolation.is_unfinished = false;
}

bool isolation_activate()
{
  cons_lock lock(isolation.lock);
  if (isolation.is_isolated) {
    return false;
  }
  cons_service.stopped = false;
  return true;
}
