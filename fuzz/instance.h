/// The whole library in its played host, new for every input: no state is left from the one before.
#pragma once

#include <atomic>

#include "fake_host.h"
#include "files.h"
#include "fuzz_target.h"

class instance
{
public:
  /// Configured as node 1, with the files of a node that has heard of nothing yet.
  explicit instance(uint32_t node_count);
  /// Stops it and checks that nothing of it is left.
  ~instance();
  instance(const instance &) = delete;
  instance &operator=(const instance &) = delete;
  /// What vx_cons_start returns; a leader leads then.
  static int start(bool is_leader);
};

/// Waits until what was injected and sent has been handled, and every payload that can be delivered is.
void wait_handled();
/// What the host records would look like a leak.
void forget_records();
/// Calls of hooks; each reads every byte that it is given.
inline std::atomic<uint32_t> hook_calls;
