/// The thread that keeps the store small: checkpoints, and retention in short steps.
#pragma once

#include <chrono>
#include <thread>

#include "guarded.h"
#include "store/store.h"

namespace kesh
{

struct upkeep_settings {
  retention keep;
  std::chrono::milliseconds period{2000};
};

class store_upkeep
{
public:
  store_upkeep() = default;
  ~store_upkeep() { stop(); }
  store_upkeep(const store_upkeep &) = delete;
  store_upkeep &operator=(const store_upkeep &) = delete;

  /// The store is open, and stays so until stop().
  void start(store &of, const upkeep_settings &settings) PLATFORM_EXCLUDES(lock_);
  /// Waits for the step that runs.
  void stop() PLATFORM_EXCLUDES(lock_);

private:
  void run(store &of, const upkeep_settings &settings) PLATFORM_EXCLUDES(lock_);
  void round(store &of, const retention &keep) PLATFORM_EXCLUDES(lock_);
  bool is_stopping() PLATFORM_EXCLUDES(lock_);

  platform::mutex lock_;
  platform::condition stopped_;
  bool is_stopping_ PLATFORM_GUARDED_BY(lock_) = false;
  std::thread thread_;   // of start() and stop()
  uint64_t seen_n_ = 0;  // of the thread
};

}  // namespace kesh
