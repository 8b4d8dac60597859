/// The sending sockets. Any thread may send; nothing here blocks.
#pragma once

#include "counters.h"
#include "guarded.h"
#include "message.h"
#include "messaging_settings.h"
#include "unique_fd.h"

#include <netinet/in.h>

#include <atomic>
#include <set>
#include <string>
#include <tuple>

namespace platform
{

enum class send_result { sent, busy, failed };

class transmitter
{
public:
  explicit transmitter(messaging_counters &counters) : counters_(counters) {}

  bool open(const messaging_settings &settings, std::string &error);
  void close();

  /// True for the group and the names of nodes: the only destinations of what is sent.
  bool knows(uint32_t destination) const;
  /// Sends one message now. busy: the kernel's send buffer is full. failed: counted and reported.
  send_result send(message &one);
  /// Sends bulk messages from the front of the list and releases them; those that fail are counted and
  /// reported. busy: the kernel takes no more for now, the rest stays in the list.
  send_result send_bulk(message_list &list);
  send_result send_bulk(message &one);

  /// Waits until the kernel takes bulk again, at most that long.
  void wait_for_room(int wait_ms) const;
  /// The port that bulk comes from, network order.
  uint16_t bulk_port() const { return bulk_port_; }

  /// Counts a message that is not sent, and says so once per channel, destination and error. 0: no errno.
  void report(const message &lost, int error, const std::string &why);

private:
  sockaddr_in address_of(const message &one) const;
  send_result send_from(const unique_fd &socket, message &one);
  send_result judge(const message &one, int error);
  void forget_reports(const message &sent);

  messaging_counters &counters_;
  messaging_settings settings_;
  // Bulk has a socket of its own, so that what fills its send buffer is no obstacle to the rest.
  unique_fd control_;
  unique_fd bulk_;
  uint16_t bulk_port_ = 0;

  mutex reports_lock_;
  std::set<std::tuple<uint32_t, uint32_t, int>> reported_ PLATFORM_GUARDED_BY(reports_lock_);
  std::atomic<bool> any_reported_{false};
};

}  // namespace platform
