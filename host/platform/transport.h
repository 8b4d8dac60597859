/// How datagrams get from node to node. Repetition, pacing, dispatch and counters lie above and are the same for every
/// kind of transport.
#pragma once

#include "message.h"
#include "messaging_settings.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace platform
{

/// One received datagram, not judged yet.
struct arrival {
  const uint8_t *bytes;
  size_t size;
  uint32_t channel;   // that it was sent on: 3 to 6
  uint32_t address;   // the sender's real address
  bool is_own_piece;  // bulk that this node sent has come back
};

struct arrivals {
  std::span<const arrival> all;  // valid until the next call
  uint32_t lost = 0;             // datagrams dropped for want of room since the last call
  bool ended = false;            // nothing more will come from this input
};

/// Sending: any thread, and nothing blocks. Receiving: one thread. Errors are errno values; EAGAIN and ENOBUFS mean
/// that there is no room for now.
class transport
{
public:
  static constexpr size_t BATCH = 64;

  transport() = default;
  virtual ~transport() = default;
  transport(const transport &) = delete;
  transport &operator=(const transport &) = delete;

  /// 0 or the error. Bulk that waits for room leaves room for the rest.
  virtual int send(message &one) = 0;
  virtual int send_bulk(message &one) = 0;
  /// Sends messages from `first` on, at most `count` (up to BATCH), until one fails. Returns how many were sent; if
  /// none, `error` says why the first was not.
  virtual size_t send_bulk(message *first, size_t count, int &error) = 0;
  /// Waits until bulk may find room again, at most `wait_ms`.
  virtual void wait_for_room(int wait_ms) const = 0;

  /// Descriptors that become readable when something has come.
  virtual std::span<const int> inputs() const = 0;
  virtual arrivals receive(size_t input) = 0;
  /// Of the smallest input, as the kernel counts: twice the bytes that were asked for, if it granted them.
  virtual size_t receive_buffer() const = 0;

  /// See messaging_mark. The second ends all waits, now and later.
  virtual void mark(const char *) {}
  virtual void end_marks() {}
};

/// The kind that the settings name. On failure null, and `error` says what and why.
std::unique_ptr<transport> open_transport(const messaging_settings &settings, std::string &error);
std::unique_ptr<transport> open_udp_transport(const messaging_settings &settings, std::string &error);
std::unique_ptr<transport> open_broker_transport(const messaging_settings &settings, std::string &error);

}  // namespace platform
