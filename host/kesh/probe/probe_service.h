/// Asks the other nodes what the network between them does, and answers them when they ask.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "guarded.h"
#include "probe/answer_limit.h"
#include "probe/probe_count.h"
#include "probe/probe_message.h"
#include "probe/probe_report.h"

namespace kesh
{

struct probe_plan {
  uint32_t count = PROBE_COUNT_DEFAULT;  ///< asks to each node by each way, for loss and times
  bool by_multicast = true;              ///< there is a group
  uint32_t packet_extra = 0;             ///< bytes of an IP packet beside the probe's own
};

class probe_service
{
public:
  /// Sends to a node, or to all if it is 0, as one IP packet or not at all. True: it has left. Any thread; waits for
  /// nothing.
  using send_function = std::function<bool(uint32_t node, std::string_view bytes)>;

  probe_service(uint32_t node, uint32_t node_count, send_function send);

  /// What came from the node, 1 to 16. From the receive hook: any thread, waits for nothing. Never sends more than
  /// came.
  void receive(uint32_t from, std::string_view bytes) noexcept PLATFORM_EXCLUDES(lock_);

  /// Asks, and waits for the answers: some seconds, less once `must_end` says so. False: another run is at work. Any
  /// thread.
  bool run(const probe_plan &plan, const std::function<bool()> &must_end, std::vector<probe_peer> &result)
      PLATFORM_EXCLUDES(lock_);

private:
  struct open_run {
    uint32_t session = 0;
    probe_report report;
  };

  void answer(uint32_t from, const probe_message &asked) PLATFORM_EXCLUDES(lock_);
  void ask_all(const probe_plan &plan, uint32_t packet_size, bool counts) PLATFORM_EXCLUDES(lock_);
  void ask(uint32_t to, const probe_plan &plan, uint32_t packet_size, bool counts) PLATFORM_EXCLUDES(lock_);
  void ask_in_turn(const probe_plan &plan, const std::function<bool()> &must_end) PLATFORM_EXCLUDES(lock_);
  void await_answers(const std::function<bool()> &must_end) PLATFORM_EXCLUDES(lock_);

  const uint32_t node_;
  std::vector<uint32_t> others_;
  const send_function send_;

  platform::mutex lock_;
  platform::condition answered_;
  answer_limit limit_ PLATFORM_GUARDED_BY(lock_);
  std::unique_ptr<open_run> run_ PLATFORM_GUARDED_BY(lock_);  // null: none
};

}  // namespace kesh
