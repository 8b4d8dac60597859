/// Who reads a store with a connection of his own passes this gate. It closes while the store's files are renamed:
/// SQLite would otherwise write into, or remove, files that belong to another store by then.
#pragma once

#include <cstdint>

#include "guarded.h"

namespace kesh
{

class use_gate
{
public:
  /// Waits while the gate is closed, which takes as long as a store needs to be renamed and opened.
  void enter() PLATFORM_EXCLUDES(lock_)
  {
    platform::lock_scope scope(lock_);
    while (is_closing_) {
      changed_.wait(lock_);
    }
    ++users_;
  }
  void leave() PLATFORM_EXCLUDES(lock_)
  {
    platform::lock_scope scope(lock_);
    --users_;
    changed_.signal_all();
  }
  /// A long use looks here now and then, and gives up when told.
  bool is_closing() PLATFORM_EXCLUDES(lock_)
  {
    platform::lock_scope scope(lock_);
    return is_closing_;
  }

  /// Lets nobody in and waits until all have left.
  void close() PLATFORM_EXCLUDES(lock_)
  {
    platform::lock_scope scope(lock_);
    is_closing_ = true;
    while (users_ != 0) {
      changed_.wait(lock_);
    }
  }
  void open() PLATFORM_EXCLUDES(lock_)
  {
    platform::lock_scope scope(lock_);
    is_closing_ = false;
    changed_.signal_all();
  }

private:
  platform::mutex lock_;
  platform::condition changed_;
  uint32_t users_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool is_closing_ PLATFORM_GUARDED_BY(lock_) = false;
};

/// One use: a connection may be open while this lives, no longer.
class use_scope
{
public:
  explicit use_scope(use_gate &gate) : gate_(gate) { gate_.enter(); }
  ~use_scope() { gate_.leave(); }
  use_scope(const use_scope &) = delete;
  use_scope &operator=(const use_scope &) = delete;

private:
  use_gate &gate_;
};

/// Closed while this lives.
class closed_scope
{
public:
  explicit closed_scope(use_gate &gate) : gate_(gate) { gate_.close(); }
  ~closed_scope() { gate_.open(); }
  closed_scope(const closed_scope &) = delete;
  closed_scope &operator=(const closed_scope &) = delete;

private:
  use_gate &gate_;
};

}  // namespace kesh
