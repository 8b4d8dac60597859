/// Reads every socket of the service on one thread, judges what came, and passes it to the channels' queues at
/// once: a hook that blocks leaves the kernel's buffers free.
#pragma once

#include "bulk_sender.h"
#include "channel_dispatch.h"
#include "counters.h"
#include "messaging_settings.h"
#include "unique_fd.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace platform
{

class receiver
{
public:
  using channels = std::array<std::unique_ptr<channel_dispatch>, CHANNEL_COUNT>;

  receiver(messaging_counters &counters, channels &to, bulk_sender &bulk);
  ~receiver();

  bool open(const messaging_settings &settings, std::string &error);
  /// The smallest buffer that the kernel granted.
  size_t granted_buffer() const;
  /// `bulk_port`: where our own pieces come from, network order.
  void start(uint16_t bulk_port);
  /// Ends the thread and closes the sockets.
  void stop();

  void block(uint32_t node_mask) { blocked_ = node_mask; }

private:
  struct source {
    unique_fd socket;
    uint32_t channel = 0;
    uint32_t overflow_seen = 0;  // the kernel's count of datagrams lost at this socket
  };
  struct batch;

  void run();
  void read_some(source &from);
  void take(const source &from, const uint8_t *bytes, size_t size, uint32_t address, message_list &control,
            message_list &bulk);
  bool is_blocked(const uint8_t *bytes, uint32_t address) const;

  messaging_counters &counters_;
  channels &to_;
  bulk_sender &bulk_;
  messaging_settings settings_;
  uint16_t bulk_port_ = 0;
  std::atomic<uint32_t> blocked_{0};
  std::vector<source> sources_;
  unique_fd poll_;
  unique_fd stop_event_;
  std::unique_ptr<batch> batch_;
  std::thread thread_;
};

}  // namespace platform
