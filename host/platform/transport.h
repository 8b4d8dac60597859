/// How datagrams get from node to node. Repetition, pacing, dispatch and counters lie above.
#pragma once

#include "message.h"
#include "messaging_settings.h"
#include "seal/sealing.h"
#include "unique_fd.h"

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

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
  uint32_t channel = 0;
  std::span<const arrival> all;  // valid until the next call
  uint32_t lost = 0;             // datagrams dropped for want of room since the last call
};

/// UDP: one port per channel, on the node's own address and on the group. Without a group what is for all is sealed
/// once and goes to each node, this one included. Bulk has its own socket, so that a full send buffer of bulk does not
/// hold up the rest.
///
/// Sending: any thread, and nothing blocks. Receiving: one thread. Errors are errno values; EAGAIN and ENOBUFS mean
/// that there is no room for now.
class transport
{
public:
  static constexpr size_t BATCH = 64;

  explicit transport(sealing &seals);
  ~transport();
  transport(const transport &) = delete;
  transport &operator=(const transport &) = delete;

  /// On failure returns false, and `error` says what and why. This node's address may come later.
  bool open(const messaging_settings &settings, std::string &error);
  /// From now on the group is heard, and sent to, by the interface of that index: also one that was made anew. 0 or the
  /// error; then it is to be called again. The receiving thread, or none yet; others may send.
  int join(unsigned interface);

  /// 0 or the error.
  int send(message &one) { return send_from(is_unfragmented(one.channel, one.key) ? unfragmented_ : control_, one); }
  int send_bulk(message &one) { return send_from(bulk_, one); }
  /// Sends messages from `first` on, at most `count` (up to BATCH), until one fails. Returns how many were sent; if
  /// none, `error` says why the first was not. One thread.
  size_t send_bulk(message *first, size_t count, int &error);
  /// Waits until bulk may find room again, at most `wait_ms`.
  void wait_for_room(int wait_ms) const;

  /// To the group, on the port of greetings. What fails is lost.
  void greet();

  /// Descriptors that become readable when something has come.
  std::span<const int> inputs() const { return input_fds_; }
  arrivals receive(size_t input);
  /// Of the smallest input, as the kernel counts: twice the bytes that were asked for, if it granted them.
  size_t receive_buffer() const;

private:
  struct receive_batch;
  struct source {
    unique_fd socket;
    uint32_t channel = 0;
    bool is_of_group = false;
    unsigned joined = 0;         // the interface that the membership was made on
    uint32_t overflow_seen = 0;  // the kernel's count of datagrams lost at this socket
  };

  /// Where a message goes: its node, the group, or in place of the group each node.
  std::span<const uint32_t> addresses_of(const message &one) const;
  int send_from(const unique_fd &socket, const message &one);
  int send_to_all(const unique_fd &socket, std::span<const uint8_t> bytes, std::span<const uint32_t> addresses,
                  uint32_t channel) const;

  // Only open writes these, except what `sources_` count and have joined, and the batch: the receiving thread uses
  // those alone.
  messaging_settings settings_;
  std::vector<uint32_t> group_;  // addresses that stand for it
  sealing &seals_;
  unique_fd control_;
  unique_fd bulk_;
  unique_fd unfragmented_;
  uint16_t bulk_port_ = 0;  // network order
  std::vector<source> sources_;
  std::vector<int> input_fds_;
  std::unique_ptr<receive_batch> batch_;
  std::unique_ptr<uint8_t[]> sealed_pieces_;  // the thread that sends batches of bulk
};

}  // namespace platform
