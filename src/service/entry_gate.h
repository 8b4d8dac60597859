/// Counts the threads inside a piece of code and keeps others out, so that a tear-down can wait until it is empty.
/// Unregistering a receive hook alone does not wait for a call that is running.
#pragma once

#include <cstdint>

#include "common/cons_mutex.h"

class entry_gate
{
public:
  constexpr explicit entry_gate(bool is_open) : is_open_(is_open) {}

  bool enter();  ///< false while closed
  void leave();
  void open();
  void close();
  /// Blocks until no thread is inside. Hold no lock that these threads may need. Returns at once on a thread that is
  /// inside a receive hook, since it would wait for itself.
  void wait_empty();

private:
  cons_mutex lock_{lock_rank::leaf};
  cons_cond empty_cond_;
  bool is_open_ CONS_GUARDED_BY(lock_);
  uint32_t inside_ CONS_GUARDED_BY(lock_) = 0;
};

/// The scope of one call of a receive hook.
class hook_call
{
public:
  explicit hook_call(entry_gate &gate);
  ~hook_call();
  hook_call(const hook_call &) = delete;
  hook_call &operator=(const hook_call &) = delete;
  bool entered() const { return entered_; }

private:
  entry_gate &gate_;
  bool entered_;
};
