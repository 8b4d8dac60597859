#include "transmitter.h"

#include "sockets.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace platform
{
namespace
{

constexpr size_t SYSTEM_CALL_BATCH = 64;

bool is_busy(int error)
{
  return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS;
}

}  // namespace

bool transmitter::open(const messaging_settings &settings, std::string &error)
{
  settings_ = settings;
  control_ = open_sender(settings, error);
  bulk_ = control_ ? open_sender(settings, error) : unique_fd();
  bulk_port_ = bulk_ ? bound_port(bulk_) : uint16_t{0};
  return static_cast<bool>(bulk_);
}

void transmitter::close()
{
  control_.reset();
  bulk_.reset();
  const lock_scope lock(reports_lock_);
  reported_.clear();
  any_reported_ = false;
}

send_result transmitter::send(message &one)
{
  return send_from(control_, one);
}
send_result transmitter::send_bulk(message &one)
{
  return send_from(bulk_, one);
}

bool transmitter::knows(uint32_t destination) const
{
  uint32_t address = 0;
  return real_address(settings_, destination, address);
}

sockaddr_in transmitter::address_of(const message &one) const
{
  uint32_t address = 0;
  real_address(settings_, one.destination, address);
  return socket_address(address, static_cast<uint16_t>(settings_.port_base + one.channel));
}

send_result transmitter::send_from(const unique_fd &socket, message &one)
{
  const sockaddr_in to = address_of(one);
  const ssize_t sent = sendto(socket.get(), one.object(), one.datagram_size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr *>(&to), sizeof to);
  return judge(one, sent < 0 ? errno : 0);
}

send_result transmitter::send_bulk(message_list &list)
{
  sockaddr_in to[SYSTEM_CALL_BATCH];
  iovec parts[SYSTEM_CALL_BATCH];
  mmsghdr headers[SYSTEM_CALL_BATCH];
  while (!list.empty()) {
    unsigned count = 0;
    for (message *one = list.first(); one != nullptr && count < SYSTEM_CALL_BATCH; one = one->next, ++count) {
      to[count] = address_of(*one);
      parts[count] = {one->object(), one->datagram_size()};
      headers[count] = {};
      headers[count].msg_hdr.msg_name = &to[count];
      headers[count].msg_hdr.msg_namelen = sizeof to[count];
      headers[count].msg_hdr.msg_iov = &parts[count];
      headers[count].msg_hdr.msg_iovlen = 1;
    }
    // An error is reported only for the first message; the next call brings that of a later one.
    const int sent = sendmmsg(bulk_.get(), headers, count, MSG_NOSIGNAL);
    if (sent < 0) {
      if (judge(*list.first(), errno) == send_result::busy) {
        return send_result::busy;
      }
      list.pop_front();
    }
    for (int i = 0; i < sent; ++i) {
      judge(*list.pop_front(), 0);
    }
  }
  return send_result::sent;
}

void transmitter::wait_for_room(int wait_ms) const
{
  pollfd room{bulk_.get(), POLLOUT, 0};
  poll(&room, 1, wait_ms);
}

send_result transmitter::judge(const message &one, int error)
{
  if (error == 0) {
    counters_.sent.fetch_add(1, std::memory_order_relaxed);
    if (any_reported_.load(std::memory_order_relaxed)) {
      forget_reports(one);
    }
    return send_result::sent;
  }
  if (is_busy(error)) {
    return send_result::busy;
  }
  report(one, error, std::generic_category().message(error));
  return send_result::failed;
}

void transmitter::report(const message &lost, int error, const std::string &why)
{
  counters_.drop(drop_reason::send_failed);
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
