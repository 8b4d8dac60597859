#include "tap_ports.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>

namespace fabric
{
namespace
{

constexpr int READS_PER_ROUND = 64;
constexpr size_t PLACES_MAX = 4096;
constexpr size_t ADDRESSES_SIZE = 12;

mac_address mac_at(std::span<const uint8_t> frame, size_t offset)
{
  mac_address found;
  std::copy_n(frame.begin() + static_cast<ptrdiff_t>(offset), found.size(), found.begin());
  return found;
}

bool is_for_many(const mac_address &address)
{
  return (address[0] & 1) != 0;
}

}  // namespace

class tap_ports::device final : public port
{
public:
  explicit device(platform::unique_fd fd) : fd_(std::move(fd)) {}

  // The kernel behind the device takes a frame or drops it; what waits for a process waits in its sockets.
  bool put(const datagram &one) override
  {
    return write(fd_.get(), one.bytes.data(), one.bytes.size()) >= 0 || errno != EAGAIN;
  }
  int fd() const { return fd_.get(); }

private:
  platform::unique_fd fd_;
};

tap_ports::tap_ports(event_loop &loop, network &net) : loop_(loop), network_(net), frame_(FRAME_MAX) {}

tap_ports::~tap_ports()
{
  while (!devices_.empty()) {
    remove(devices_.begin()->first);
  }
}

void tap_ports::add(const tap_settings &settings)
{
  remove(settings.node);
  const uint32_t node = settings.node;
  device &made = *(devices_[node] = std::make_unique<device>(open_tap(settings)));
  network_.attach(node, made);
  loop_.watch(made.fd(), EPOLLIN, [this, node](uint32_t) { read_some(node); });
}

void tap_ports::remove(uint32_t node)
{
  const auto found = devices_.find(node);
  if (found == devices_.end()) {
    return;
  }
  loop_.forget(found->second->fd());
  network_.detach(node, *found->second);
  devices_.erase(found);
  std::erase_if(places_, [&](const auto &place) { return place.second == node; });
}

void tap_ports::read_some(uint32_t node)
{
  const int fd = devices_.at(node)->fd();
  for (int i = 0; i < READS_PER_ROUND; ++i) {
    const ssize_t size = read(fd, frame_.data(), frame_.size());
    if (size < 0) {
      if (errno != EAGAIN && errno != EINTR && errno != EIO) {
        remove(node);  // its namespace has gone
      }
      return;
    }
    if (static_cast<size_t>(size) >= ADDRESSES_SIZE) {
      forward(node, std::span(frame_).first(static_cast<size_t>(size)));
    }
  }
}

void tap_ports::forward(uint32_t from, std::span<const uint8_t> frame)
{
  const mac_address to = mac_at(frame, 0);
  const mac_address source = mac_at(frame, to.size());
  if (!is_for_many(source) && (places_.size() < PLACES_MAX || places_.contains(source))) {
    places_[source] = from;
  }
  const auto place = is_for_many(to) ? places_.end() : places_.find(to);
  const uint32_t receivers = place == places_.end() ? network_.connected() : node_bit(place->second);
  network_.receive(from, make_frame(frame), receivers & ~node_bit(from));
}

}  // namespace fabric
