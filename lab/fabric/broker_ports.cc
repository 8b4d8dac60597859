#include "broker_ports.h"

#include "broker_frame.h"
#include "unix_listener.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <deque>

namespace fabric
{
namespace
{

using platform::frame_header;
using platform::frame_kind;

constexpr size_t BATCH = 64;
constexpr size_t SLOT_SIZE = 65536;
// What the kernel holds for a node before our own queue begins.
constexpr int SEND_BUFFER = 1 << 20;

}  // namespace

struct broker_ports::receive_batch {
  std::array<mmsghdr, BATCH> headers;
  std::array<iovec, 2 * BATCH> parts;
  std::array<frame_header, BATCH> frames;
  std::unique_ptr<uint8_t[]> slots{new uint8_t[BATCH * SLOT_SIZE]};

  int read(const platform::unique_fd &socket)
  {
    for (size_t i = 0; i < BATCH; ++i) {
      parts[2 * i] = {frames[i].data(), frames[i].size()};
      parts[2 * i + 1] = {slots.get() + i * SLOT_SIZE, SLOT_SIZE};
      headers[i] = {};
      headers[i].msg_hdr.msg_iov = &parts[2 * i];
      headers[i].msg_hdr.msg_iovlen = 2;
    }
    return recvmmsg(socket.get(), headers.data(), BATCH, MSG_DONTWAIT, nullptr);
  }
  std::span<const uint8_t> content(size_t i) const
  {
    return {slots.get() + i * SLOT_SIZE, headers[i].msg_len - platform::FRAME_HEADER_SIZE};
  }
};

class broker_ports::connection final : public port
{
public:
  connection(platform::unique_fd socket, pid_t pid, network &net) : socket_(std::move(socket)), pid_(pid), network_(net)
  {
  }

  const char *kind() const override { return KIND; }
  bool put(uint32_t from, const datagram_ptr &one) override;
  size_t queued_bytes() const override { return queued_bytes_; }

  int fd() const { return socket_.get(); }
  bool has_ended() const { return has_ended_; }
  void end() { has_ended_ = true; }
  uint32_t node() const { return node_; }
  bool waits_for_room() const { return waits_for_room_; }

  void read_some(receive_batch &batch);
  void flush();

private:
  struct queued {
    frame_header header;
    datagram_ptr what;  // null: the header is all
  };

  void take(const frame_header &header, std::span<const uint8_t> content);

  platform::unique_fd socket_;
  pid_t pid_;
  network &network_;
  uint32_t node_ = 0;  // 0: it has not said hello
  bool has_ended_ = false;
  bool waits_for_room_ = false;
  std::deque<queued> queue_;
  size_t queued_bytes_ = 0;
};

bool broker_ports::connection::put(uint32_t from, const datagram_ptr &one)
{
  if (queued_bytes_ + one->bytes.size() > PORT_QUEUE_MAX_BYTES) {
    return false;
  }
  queue_.push_back({platform::make_frame_header(frame_kind::datagram, from, 0), one});
  queued_bytes_ += one->bytes.size();
  return true;
}

void broker_ports::connection::read_some(receive_batch &batch)
{
  const int count = batch.read(socket_);
  // A process that ends with unread frames leaves ECONNRESET in front of what it has sent before.
  has_ended_ |= count < 0 && errno != EAGAIN && errno != EINTR && errno != ECONNRESET;
  for (size_t i = 0; count > 0 && i < static_cast<size_t>(count) && !has_ended_; ++i) {
    if (batch.headers[i].msg_len < platform::FRAME_HEADER_SIZE) {
      has_ended_ = true;  // 0: end of the connection
    } else {
      take(batch.frames[i], batch.content(i));
    }
  }
}

void broker_ports::connection::take(const frame_header &header, std::span<const uint8_t> content)
{
  const auto kind = static_cast<frame_kind>(header[0]);
  const uint32_t node = header[1];
  if (node_ == 0) {
    has_ended_ = kind != frame_kind::hello || node < 1 || node > NODES_MAX ||
                 platform::frame_number(header) != platform::FRAME_VERSION;
    if (!has_ended_) {
      node_ = node;
      network_.attach(node, *this, pid_);
    }
  } else if (kind == frame_kind::datagram && node <= NODES_MAX) {
    network_.receive(node_, make_message(content, node == 0),
                     node == 0 ? network_.nodes_of_kind(KIND) : node_bit(node));
  } else if (kind == frame_kind::mark) {
    if (network_.marked(node_, {reinterpret_cast<const char *>(content.data()), content.size()})) {
      queue_.push_back({platform::make_frame_header(frame_kind::go_ahead, 0, platform::frame_number(header)), nullptr});
    }
  }
}

void broker_ports::connection::flush()
{
  std::array<mmsghdr, BATCH> headers;
  std::array<iovec, 2 * BATCH> parts;
  waits_for_room_ = false;
  while (!queue_.empty() && !has_ended_) {
    size_t count = 0;
    for (auto one = queue_.begin(); one != queue_.end() && count < BATCH; ++one, ++count) {
      iovec *const part = &parts[2 * count];
      part[0] = {one->header.data(), one->header.size()};
      if (one->what) {
        part[1] = {const_cast<uint8_t *>(one->what->bytes.data()), one->what->bytes.size()};
      }
      headers[count] = {};
      headers[count].msg_hdr.msg_iov = part;
      headers[count].msg_hdr.msg_iovlen = one->what ? 2 : 1;
    }
    const int sent = sendmmsg(socket_.get(), headers.data(), static_cast<unsigned>(count), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      waits_for_room_ = errno == EAGAIN || errno == ENOBUFS;
      // Any other error means that the node has gone, which reading finds too, after what it has sent before.
      if (!waits_for_room_) {
        queue_.clear();
        queued_bytes_ = 0;
      }
      return;
    }
    for (int i = 0; i < sent; ++i) {
      queued_bytes_ -= queue_.front().what ? queue_.front().what->bytes.size() : 0;
      queue_.pop_front();
    }
  }
}

broker_ports::broker_ports(event_loop &loop, network &net)
    : loop_(loop), network_(net), batch_(std::make_unique<receive_batch>())
{
}

broker_ports::~broker_ports()
{
  while (!connections_.empty()) {
    close(connections_.front());
  }
  if (listener_) {
    loop_.forget(listener_.get());
    unlink(path_.c_str());
  }
}

void broker_ports::listen(const std::string &path)
{
  listener_ = listen_unix(path, SOCK_SEQPACKET);
  path_ = path;
  loop_.watch(listener_.get(), EPOLLIN, [this](uint32_t) { accept_some(); });
}

void broker_ports::accept_some()
{
  platform::unique_fd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket) {
    return;
  }
  if (setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) != 0) {
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
  }
  ucred peer{};
  socklen_t size = sizeof peer;
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
  connection &made = connections_.emplace_back(std::move(socket), peer.pid, network_);
  loop_.watch(made.fd(), EPOLLIN, [this, &made](uint32_t events) {
    if ((events & ~uint32_t{EPOLLOUT}) != 0) {
      const uint32_t known_as = made.node();
      made.read_some(*batch_);
      if (known_as == 0 && made.node() != 0) {
        // The process before has ended, or is to be heard no longer.
        for (connection &other : connections_) {
          if (&other != &made && other.node() == made.node()) {
            other.end();
          }
        }
      }
    }
  });
}

void broker_ports::flush()
{
  for (auto one = connections_.begin(); one != connections_.end();) {
    connection &each = *one++;
    const bool waited = each.waits_for_room();
    each.flush();
    if (each.has_ended()) {
      close(each);
    } else if (each.waits_for_room() != waited) {
      loop_.change(each.fd(), each.waits_for_room() ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
  }
}

void broker_ports::close(connection &gone)
{
  loop_.forget(gone.fd());
  if (gone.node() != 0) {
    network_.detach(gone.node(), gone);
  }
  connections_.remove_if([&](const connection &one) { return &one == &gone; });
}

}  // namespace fabric
