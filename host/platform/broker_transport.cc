// All datagrams travel on one connection to a broker, which owns their delivery.
#include "broker_frame.h"
#include "guarded.h"
#include "platform.h"
#include "transport.h"
#include "unique_fd.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <system_error>

namespace platform
{
namespace
{

constexpr size_t SLOT_SIZE = 65536;  // above DATAGRAM_MAX
constexpr int SEND_BUFFER = 4 << 20;

uint32_t frame_node(uint32_t destination)
{
  return destination == GROUP_ADDRESS ? 0 : destination >> 24;
}

class broker_transport final : public transport
{
public:
  bool open(const messaging_settings &settings, std::string &error);

  int send(message &one) override;
  int send_bulk(message &one) override { return has_room(0) ? send(one) : EAGAIN; }
  size_t send_bulk(message *first, size_t count, int &error) override;
  void wait_for_room(int wait_ms) const override { has_room(wait_ms); }

  std::span<const int> inputs() const override { return {&input_fd_, 1}; }
  arrivals receive(size_t input) override;
  // The broker keeps what a node has not read yet; it has room for bursts.
  size_t receive_buffer() const override { return size_t{2} * settings_.receive_buffer; }

  void mark(const char *kind) override;
  void end_marks() override;

private:
  // The kernel calls a socket writable when three quarters of its buffer are free. Bulk is sent only then, and so
  // leaves room for everything else.
  bool has_room(int wait_ms) const
  {
    pollfd room{socket_.get(), POLLOUT, 0};
    return poll(&room, 1, wait_ms) == 1;
  }
  bool take(const frame_header &header, const uint8_t *bytes, size_t size, arrival &to);

  // Only open writes these.
  messaging_settings settings_;
  unique_fd socket_;
  int input_fd_ = -1;

  // Only the receiving thread uses these.
  std::array<mmsghdr, BATCH> headers_;
  std::array<iovec, 2 * BATCH> parts_;
  std::array<frame_header, BATCH> frames_;
  std::array<arrival, BATCH> arrived_;
  std::unique_ptr<uint8_t[]> slots_{new uint8_t[BATCH * SLOT_SIZE]};

  mutex marks_lock_;
  condition mark_answered_;
  uint16_t last_ticket_ PLATFORM_GUARDED_BY(marks_lock_) = 0;
  std::set<uint16_t> open_tickets_ PLATFORM_GUARDED_BY(marks_lock_);
  bool marks_ended_ PLATFORM_GUARDED_BY(marks_lock_) = false;
};

bool broker_transport::open(const messaging_settings &settings, std::string &error)
{
  settings_ = settings;
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (settings.broker.size() >= sizeof name.sun_path) {
    error = "messaging: " + settings.broker + ": a socket's path has at most " +
            std::to_string(sizeof name.sun_path - 1) + " bytes";
    return false;
  }
  memcpy(name.sun_path, settings.broker.c_str(), settings.broker.size() + 1);
  socket_ = unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) != 0) {
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
  }
  const frame_header hello = make_frame_header(frame_kind::hello, settings.node_id, FRAME_VERSION);
  if (!socket_ || connect(socket_.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0 ||
      ::send(socket_.get(), hello.data(), hello.size(), MSG_NOSIGNAL) < 0) {
    error = "messaging: no broker at " + settings.broker + ": " + std::generic_category().message(errno);
    return false;
  }
  input_fd_ = socket_.get();
  return true;
}

int broker_transport::send(message &one)
{
  frame_header header = make_frame_header(frame_kind::datagram, frame_node(one.destination), 0);
  iovec parts[] = {{header.data(), header.size()}, {one.object(), one.datagram_size()}};
  msghdr frame{};
  frame.msg_iov = parts;
  frame.msg_iovlen = 2;
  return sendmsg(socket_.get(), &frame, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 ? errno : 0;
}

size_t broker_transport::send_bulk(message *first, size_t count, int &error)
{
  error = EAGAIN;
  size_t sent = 0;
  // One call per message, to see the room before each: this transport is meant to be exact, not fast.
  for (message *one = first; one != nullptr && sent < std::min(count, BATCH); one = one->next, ++sent) {
    error = send_bulk(*one);
    if (error != 0) {
      break;
    }
  }
  return sent;
}

bool broker_transport::take(const frame_header &header, const uint8_t *bytes, size_t size, arrival &to)
{
  if (header[0] == static_cast<uint8_t>(frame_kind::go_ahead)) {
    const lock_scope lock(marks_lock_);
    open_tickets_.erase(frame_number(header));
    mark_answered_.signal_all();
    return false;
  }
  const uint32_t from = header[1];
  if (header[0] != static_cast<uint8_t>(frame_kind::datagram) || from < 1 || from > NODES_MAX) {
    return false;
  }
  // A datagram of no channel is judged, and counted, as one of the first channel.
  const uint32_t channel = size >= WORD_SIZE ? bytes[3] : 0;
  const bool is_channel = channel >= CHANNEL_FIRST && channel < CHANNEL_FIRST + CHANNEL_COUNT;
  to = {bytes, size, is_channel ? channel : CHANNEL_FIRST, settings_.node_address[from - 1],
        from == settings_.node_id && size >= WORD_SIZE && bytes[2] == 1};
  return true;
}

arrivals broker_transport::receive(size_t)
{
  for (size_t i = 0; i < BATCH; ++i) {
    parts_[2 * i] = {frames_[i].data(), frames_[i].size()};
    parts_[2 * i + 1] = {slots_.get() + i * SLOT_SIZE, SLOT_SIZE};
    headers_[i] = {};
    headers_[i].msg_hdr.msg_iov = &parts_[2 * i];
    headers_[i].msg_hdr.msg_iovlen = 2;
  }
  arrivals result;
  const int received = recvmmsg(socket_.get(), headers_.data(), BATCH, MSG_DONTWAIT, nullptr);
  result.ended = received < 0 && errno != EAGAIN && errno != EINTR;
  size_t kept = 0;
  for (size_t i = 0; received > 0 && i < static_cast<size_t>(received) && !result.ended; ++i) {
    const size_t size = headers_[i].msg_len;
    result.ended = size == 0;  // a frame is never empty
    if (size >= FRAME_HEADER_SIZE &&
        take(frames_[i], slots_.get() + i * SLOT_SIZE, size - FRAME_HEADER_SIZE, arrived_[kept])) {
      ++kept;
    }
  }
  if (result.ended) {
    log_line(log_level::error,
             "messaging: the broker at " + settings_.broker + " has gone: nothing is sent or received any more");
    end_marks();
  }
  result.all = {arrived_.data(), kept};
  return result;
}

void broker_transport::mark(const char *kind)
{
  const lock_scope lock(marks_lock_);
  if (marks_ended_) {
    return;
  }
  uint16_t ticket = ++last_ticket_;
  frame_header header = make_frame_header(frame_kind::mark, 0, ticket);
  iovec parts[] = {{header.data(), header.size()}, {const_cast<char *>(kind), strlen(kind)}};
  msghdr frame{};
  frame.msg_iov = parts;
  frame.msg_iovlen = 2;
  open_tickets_.insert(ticket);
  while (sendmsg(socket_.get(), &frame, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (marks_ended_ || (errno != EAGAIN && errno != ENOBUFS && errno != EINTR)) {
      open_tickets_.erase(ticket);
      return;
    }
    marks_lock_.unlock();
    wait_for_room(10);
    marks_lock_.lock();
  }
  while (open_tickets_.contains(ticket) && !marks_ended_) {
    mark_answered_.wait(marks_lock_);
  }
}

void broker_transport::end_marks()
{
  const lock_scope lock(marks_lock_);
  marks_ended_ = true;
  mark_answered_.signal_all();
}

}  // namespace

std::unique_ptr<transport> open_broker_transport(const messaging_settings &settings, std::string &error)
{
  auto made = std::make_unique<broker_transport>();
  return made->open(settings, error) ? std::move(made) : nullptr;
}

}  // namespace platform
