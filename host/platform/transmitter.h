/// The way out: sends over the transport, counts, and reports what fails. Any thread may send; nothing here blocks.
#pragma once

#include "counters.h"
#include "guarded.h"
#include "message.h"
#include "message_filter.h"
#include "messaging_settings.h"
#include "transport.h"

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
  transmitter(messaging_counters &counters, filter_gate &gate) : counters_(counters), gate_(gate) {}

  /// `over` stays valid until close.
  void open(const messaging_settings &settings, transport &over);
  void close();

  /// True for the group and the names of nodes: the only destinations of what is sent.
  bool knows(uint32_t destination) const;
  /// Sends one message now, or drops it as sent if the filter refuses it. busy: there is no room for it. failed:
  /// counted and reported.
  send_result send(message &one);
  /// Sends bulk messages from the front of the list and releases them; those that fail are counted and
  /// reported. busy: there is no more room for now, the rest stays in the list.
  send_result send_bulk(message_list &list);
  send_result send_bulk(message &one);

  /// Waits until there may be room for bulk again, at most `wait_ms`.
  void wait_for_room(int wait_ms) const { transport_->wait_for_room(wait_ms); }

  /// Counts a message that is not sent, and logs it once per channel, destination and error. 0: no errno.
  void report(const message &lost, int error, const std::string &why);

private:
  send_result judge(const message &one, int error);
  void forget_reports(const message &sent);

  messaging_counters &counters_;
  filter_gate &gate_;
  // Only open and close write these, while nobody sends: the sending threads do not run then, and messaging refuses all
  // other callers.
  messaging_settings settings_;
  transport *transport_ = nullptr;

  mutex reports_lock_;
  std::set<std::tuple<uint32_t, uint32_t, int>> reported_ PLATFORM_GUARDED_BY(reports_lock_);
  std::atomic<bool> any_reported_{false};
};

}  // namespace platform
