/// Sends one line through vx_cons_distribute, attempt after attempt under the same tag.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "service.h"

namespace kesh
{

struct send_options {
  int64_t timeout_s = 60;  ///< how long a line is tried again, or waits for the node to become active
  bool repeat = true;      ///< whether a line without a result is tried again
  const std::atomic<bool> *given_up = nullptr;  ///< null, or once true nothing more is tried
};

struct send_verdict {
  bool acknowledged = false;
  uint64_t sequence = 0;  ///< of the tag; 0: not tried
  uint32_t attempts = 0;
  const char *reason = "";  ///< why it is not acknowledged
};

/// A pause after an attempt that failed on an active node, for example without memory.
inline constexpr std::chrono::milliseconds RETRY_PAUSE{20};

/// Blocks until the line is delivered here or is given up, and counts it in the service's submissions. `sequence` is
/// one of service::next_sequence, `thread` one of service::next_thread.
send_verdict line_send(service &host, uint64_t sequence, const std::string &text, uint32_t thread,
                       const send_options &options);

}  // namespace kesh
