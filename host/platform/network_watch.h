/// Hears from the kernel when an interface or an IPv4 address comes, changes or goes.
#pragma once

#include "unique_fd.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace platform
{

struct network_news {
  bool is_any = false;         ///< about an interface or an address
  bool has_lost = false;       ///< there was more than is told here
  std::vector<unsigned> gone;  ///< interfaces that were removed, by index; one that is made anew may get the same
};

/// Adds what the kernel's messages of one datagram (rtnetlink) tell. What does not fit its length ends the reading, and
/// counts as lost.
void read_network_news(std::span<const uint8_t> datagram, network_news &to);

/// One thread.
class network_watch
{
public:
  /// False: `error` says why.
  bool open(std::string &error);
  void close() { socket_.reset(); }
  /// Readable when there are news.
  int fd() const { return socket_.get(); }
  /// What came since the last call. Never waits.
  network_news take();

private:
  unique_fd socket_;
};

}  // namespace platform
