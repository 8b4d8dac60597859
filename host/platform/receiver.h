/// Reads every input of the transport on one thread, judges the datagrams, and passes them to the channels' queues at
/// once. So the kernel's buffers stay free while a hook blocks.
#pragma once

#include "bulk_sender.h"
#include "channel_dispatch.h"
#include "counters.h"
#include "drop_warnings.h"
#include "messaging_settings.h"
#include "network_attachment.h"
#include "seal/sealing.h"
#include "transport.h"
#include "unique_fd.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace platform
{

class receiver
{
public:
  using channels = std::array<std::unique_ptr<channel_dispatch>, CHANNEL_COUNT>;

  receiver(messaging_counters &counters, channels &to, bulk_sender &bulk, sealing &seals, network_attachment &network);
  ~receiver();

  /// `over` stays valid until stop, and the network's attachment is open until then.
  bool open(const messaging_settings &settings, transport &over, std::string &error);
  void start();
  /// Ends the thread.
  void stop();

  void block(uint32_t node_mask) { blocked_ = node_mask; }
  /// As messaging_expect.
  void expect(uint64_t cluster_id, uint32_t build);

private:
  struct sorted {
    message_list control;
    message_list bulk;
  };

  void run();
  void read_some(size_t input);
  void take(const arrival &one, sorted &to);
  message_ptr open_sealed(const arrival &one, uint32_t node);
  message_ptr copy_plain(const arrival &one, uint32_t node);
  void drop(const arrival &one, uint32_t node, drop_reason reason);
  void note_other(const message &made, const arrival &one, uint32_t node);
  void answer_greeting();
  bool is_blocked(const uint8_t *bytes, uint32_t address) const;

  messaging_counters &counters_;
  channels &to_;
  bulk_sender &bulk_;
  sealing &seals_;
  network_attachment &network_;
  std::atomic<uint32_t> blocked_{0};
  std::atomic<uint64_t> expected_cluster_{0};
  std::atomic<uint32_t> expected_build_{0};
  // Set before the thread starts and released after it has ended. In between only the thread reads them.
  messaging_settings settings_;
  transport *transport_ = nullptr;
  unique_fd poll_;
  unique_fd stop_event_;
  unique_fd greeting_timer_;
  uint32_t answers_left_ = 0;
  drop_warnings warnings_;
  std::thread thread_;
};

}  // namespace platform
