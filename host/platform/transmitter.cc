#include "transmitter.h"

#include <cerrno>
#include <system_error>

namespace platform
{
namespace
{

bool is_busy(int error)
{
  return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS;
}

}  // namespace

void transmitter::open(const messaging_settings &settings, transport &over)
{
  settings_ = settings;
  transport_ = &over;
}

void transmitter::close()
{
  transport_ = nullptr;
  const lock_scope lock(reports_lock_);
  reported_.clear();
  any_reported_ = false;
}

bool transmitter::knows(uint32_t destination) const
{
  uint32_t address = 0;
  return real_address(settings_, destination, address);
}

send_result transmitter::send(message &one)
{
  if (!gate_.lets_out(one)) {
    return send_result::sent;
  }
  return judge(one, transport_->send(one));
}
send_result transmitter::send_bulk(message &one)
{
  return judge(one, transport_->send_bulk(one));
}

send_result transmitter::send_bulk(message_list &list)
{
  while (!list.empty()) {
    int error = 0;
    const size_t sent = transport_->send_bulk(list.first(), transport::BATCH, error);
    if (sent == 0) {
      if (judge(*list.first(), error) == send_result::busy) {
        return send_result::busy;
      }
      list.pop_front();
    }
    for (size_t i = 0; i < sent; ++i) {
      judge(*list.pop_front(), 0);
    }
  }
  return send_result::sent;
}

send_result transmitter::judge(const message &one, int error)
{
  if (error == 0) {
    counters_.count_sent(one.channel);
    if (any_reported_.load(std::memory_order_relaxed)) {
      forget_reports(one);
    }
    return send_result::sent;
  }
  if (is_busy(error)) {
    return send_result::busy;
  }
  if (error == EMSGSIZE && is_unfragmented(one.channel, one.key)) {
    return send_result::failed;  // that is an answer, too
  }
  report(one, error, std::generic_category().message(error));
  return send_result::failed;
}

void transmitter::report(const message &lost, int error, const std::string &why)
{
  counters_.drop(lost.channel, drop_reason::send_failed);
  {
    const lock_scope lock(reports_lock_);
    if (!reported_.emplace(lost.channel, lost.destination, error).second) {
      return;
    }
    any_reported_ = true;
  }
  log_line(log_level::error, "messaging: not sent: channel " + std::to_string(lost.channel) + ", key " +
                                 std::to_string(lost.key) + ", " + std::to_string(lost.data_size) + " bytes to " +
                                 address_text(lost.destination) + ": " + why + " (said once until a send works again)");
}

void transmitter::forget_reports(const message &sent)
{
  const lock_scope lock(reports_lock_);
  const auto first = reported_.lower_bound({sent.channel, sent.destination, 0});
  const auto last = reported_.upper_bound({sent.channel, sent.destination, INT32_MAX});
  reported_.erase(first, last);
  any_reported_ = !reported_.empty();
}

}  // namespace platform
