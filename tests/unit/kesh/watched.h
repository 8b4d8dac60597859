/// State that several threads of a test share: changed under a lock, awaited with a deadline.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

class watched
{
public:
  /// Carries out a change or a look, and tells those who wait.
  template <typename action>
  auto with(const action &act)
  {
    const std::lock_guard lock(guard);
    changed.notify_all();
    return act();
  }
  /// Waits until it is so, then takes a look.
  template <typename predicate, typename action>
  auto await(const predicate &is_so, const action &look)
  {
    std::unique_lock lock(guard);
    EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), is_so)) << "in vain";
    return look();
  }
  template <typename predicate>
  void await(const predicate &is_so)
  {
    await(is_so, [] {});
  }

private:
  std::mutex guard;
  std::condition_variable changed;
};
