#include "line_sender.h"

#include <algorithm>

#include "vx_cons.h"

namespace kesh
{

using std::chrono::steady_clock;

namespace
{

bool is_given_up(const send_options &options)
{
  return options.given_up != nullptr && *options.given_up;
}

/// As service::wait_active, but notices soon that the line was given up.
bool wait_active(service &host, steady_time deadline, const send_options &options)
{
  constexpr std::chrono::milliseconds SLICE{200};
  while (!is_given_up(options)) {
    const auto slice_end = steady_clock::now() + SLICE;
    if (host.wait_active(std::min(slice_end, deadline))) {
      return true;
    }
    if (host.stopping() || slice_end >= deadline) {
      return false;
    }
  }
  return false;
}

int distribute(service &host, const journal_line &line, uint32_t thread)
{
  const std::string payload = line_record_encode(line);
  host.events.note("call", thread, line.tag.sequence, line.attempt, payload.size());
  const int result = vx_cons_distribute(reinterpret_cast<const uint8_t *>(payload.data()),
                                        static_cast<uint32_t>(payload.size()), DATA_TYPE_LINES);
  host.events.note("return", thread, line.tag.sequence, line.attempt, result);
  if (result != 0 && vx_cons_cluster_active() == 0) {
    host.wake();  // so that an isolation is noticed sooner
  }
  return result;
}

send_verdict send(service &host, uint64_t sequence, const std::string &text, uint32_t thread,
                  const send_options &options)
{
  send_verdict given;
  given.sequence = sequence;
  const auto give_up_at = steady_clock::now() + std::chrono::seconds(options.timeout_s);
  journal_line line{{static_cast<uint8_t>(host.configured.node_id), host.life, sequence}, 0, text};
  for (;;) {
    if (host.lines.failed()) {
      given.reason = "the journal cannot be written";
      return given;
    }
    if (!wait_active(host, give_up_at, options)) {
      given.reason = host.stopping() ? "the daemon is stopping" : "the node is not active";
      return given;
    }
    line.attempt = ++given.attempts;
    host.submissions.again += given.attempts > 1 ? 1 : 0;
    if (distribute(host, line, thread) == 0) {
      given.acknowledged = !host.lines.failed();
      given.reason = "delivered, but the journal could not be written";
      return given;
    }
    const auto now = steady_clock::now();
    if (!options.repeat || is_given_up(options)) {
      given.reason = "an attempt had no result, and is not repeated";
      return given;
    }
    if (now >= give_up_at || !host.pause(std::min(now + RETRY_PAUSE, give_up_at))) {
      given.reason = host.stopping() ? "the daemon is stopping" : "no attempt succeeded in time";
      return given;
    }
  }
}

}  // namespace

send_verdict line_send(service &host, uint64_t sequence, const std::string &text, uint32_t thread,
                       const send_options &options)
{
  host.submissions.open++;
  const send_verdict given = send(host, sequence, text, thread, options);
  host.submissions.open--;
  (given.acknowledged ? host.submissions.acknowledged : host.submissions.failed)++;
  return given;
}

}  // namespace kesh
