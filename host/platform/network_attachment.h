/// Keeps the transport on the interface of its group, however often that is removed and made anew, and says why this
/// node has no network while it has none. The transport's sockets are bound to addresses that need not exist yet, so
/// none is ever replaced under a thread that sends; only memberships and outgoing interfaces are set anew.
#pragma once

#include "guarded.h"
#include "messaging_settings.h"
#include "network_watch.h"
#include "own_network.h"
#include "transport.h"

#include <atomic>
#include <string>

namespace platform
{

/// All but fault() and has_fault(): one thread at a time.
class network_attachment
{
public:
  /// Attaches the transport if there is a network. `to` stays valid until close. False: the kernel's word cannot be
  /// heard; `error` says why.
  bool open(const messaging_settings &settings, transport &to, std::string &error);
  void close();

  /// Readable when take_news() is due.
  int fd() const { return watch_.fd(); }
  void take_news() PLATFORM_EXCLUDES(lock_);
  /// To be called now and then: tries again what failed.
  void look_again() PLATFORM_EXCLUDES(lock_);

  /// Why this node has no network; empty: it has. Any thread.
  std::string fault() PLATFORM_EXCLUDES(lock_);
  bool has_fault() const { return has_fault_.load(std::memory_order_relaxed); }

private:
  void attach() PLATFORM_EXCLUDES(lock_);
  void note(const own_network &now, bool has_joined) PLATFORM_EXCLUDES(lock_);

  messaging_settings settings_;
  transport *transport_ = nullptr;
  network_watch watch_;
  unsigned joined_ = 0;  // the interface that the transport is on; 0: none
  bool was_joined_ = false;

  std::atomic<bool> has_fault_{false};
  mutex lock_;
  std::string fault_ PLATFORM_GUARDED_BY(lock_);
};

}  // namespace platform
