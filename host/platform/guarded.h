/// Mutexes and condition whose use clang's -Wthread-safety checks. The standard ones bear no attributes, so every lock
/// of the host layer and of kesh is one of these.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define PLATFORM_ATTRIBUTE(x) __attribute__((x))
#else
#define PLATFORM_ATTRIBUTE(x)
#endif
#define PLATFORM_GUARDED_BY(x) PLATFORM_ATTRIBUTE(guarded_by(x))
#define PLATFORM_REQUIRES(x) PLATFORM_ATTRIBUTE(requires_capability(x))
#define PLATFORM_REQUIRES_SHARED(x) PLATFORM_ATTRIBUTE(requires_shared_capability(x))
#define PLATFORM_EXCLUDES(x) PLATFORM_ATTRIBUTE(locks_excluded(x))

namespace platform
{

class PLATFORM_ATTRIBUTE(capability("mutex")) mutex
{
public:
  constexpr mutex() = default;
  void lock() PLATFORM_ATTRIBUTE(acquire_capability()) { native_.lock(); }
  bool try_lock() PLATFORM_ATTRIBUTE(try_acquire_capability(true)) { return native_.try_lock(); }
  void unlock() PLATFORM_ATTRIBUTE(release_capability()) { native_.unlock(); }

private:
  friend class condition;
  std::mutex native_;
};

class PLATFORM_ATTRIBUTE(scoped_lockable) lock_scope
{
public:
  explicit lock_scope(mutex &held) PLATFORM_ATTRIBUTE(acquire_capability(held)) : held_(held) { held_.lock(); }
  /// The caller holds it already.
  lock_scope(mutex &held, std::adopt_lock_t) PLATFORM_REQUIRES(held) : held_(held) {}
  ~lock_scope() PLATFORM_ATTRIBUTE(release_capability()) { held_.unlock(); }
  lock_scope(const lock_scope &) = delete;
  lock_scope &operator=(const lock_scope &) = delete;

private:
  mutex &held_;
};

/// Many may hold it shared, or one alone. It is not recursive: nobody takes it twice, not even shared.
class PLATFORM_ATTRIBUTE(capability("mutex")) shared_mutex
{
public:
  void lock() PLATFORM_ATTRIBUTE(acquire_capability()) { native_.lock(); }
  void unlock() PLATFORM_ATTRIBUTE(release_capability()) { native_.unlock(); }
  void lock_shared() PLATFORM_ATTRIBUTE(acquire_shared_capability()) { native_.lock_shared(); }
  void unlock_shared() PLATFORM_ATTRIBUTE(release_shared_capability()) { native_.unlock_shared(); }

private:
  std::shared_mutex native_;
};

class PLATFORM_ATTRIBUTE(scoped_lockable) alone_scope
{
public:
  explicit alone_scope(shared_mutex &held) PLATFORM_ATTRIBUTE(acquire_capability(held)) : held_(held) { held_.lock(); }
  ~alone_scope() PLATFORM_ATTRIBUTE(release_capability()) { held_.unlock(); }
  alone_scope(const alone_scope &) = delete;
  alone_scope &operator=(const alone_scope &) = delete;

private:
  shared_mutex &held_;
};

class PLATFORM_ATTRIBUTE(scoped_lockable) shared_scope
{
public:
  explicit shared_scope(shared_mutex &held) PLATFORM_ATTRIBUTE(acquire_shared_capability(held)) : held_(held)
  {
    held_.lock_shared();
  }
  ~shared_scope() PLATFORM_ATTRIBUTE(release_generic_capability()) { held_.unlock_shared(); }
  shared_scope(const shared_scope &) = delete;
  shared_scope &operator=(const shared_scope &) = delete;

private:
  shared_mutex &held_;
};

/// Waits may end without a reason: loop on a predicate.
class condition
{
public:
  void wait(mutex &held) PLATFORM_REQUIRES(held)
  {
    std::unique_lock<std::mutex> native(held.native_, std::adopt_lock);
    native_.wait(native);
    native.release();
  }
  /// False once `deadline` has passed.
  bool wait_until(mutex &held, std::chrono::steady_clock::time_point deadline) PLATFORM_REQUIRES(held)
  {
    std::unique_lock<std::mutex> native(held.native_, std::adopt_lock);
    const bool in_time = native_.wait_until(native, deadline) == std::cv_status::no_timeout;
    native.release();
    return in_time;
  }
  void signal() { native_.notify_one(); }
  void signal_all() { native_.notify_all(); }

private:
  std::condition_variable native_;
};

}  // namespace platform
