/// The messaging service of one node. The functions of vx_host.h use the process's only one; tests make more.
#pragma once

#include "bulk_sender.h"
#include "channel_dispatch.h"
#include "counters.h"
#include "guarded.h"
#include "message_filter.h"
#include "messaging_settings.h"
#include "network_attachment.h"
#include "receiver.h"
#include "repeat_queue.h"
#include "seal/sealing.h"
#include "transmitter.h"
#include "transport.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace platform
{

/// Any thread may call everything except start and stop. Only stop waits for a hook.
class messaging
{
public:
  messaging();

  /// Opens the transport and starts the threads. On failure returns false, `error` says what and why, and nothing
  /// is left open.
  bool start(const messaging_settings &settings, std::string &error) PLATFORM_EXCLUDES(running_lock_);
  /// Waits for running hooks. What is queued is dropped. Hooks stay registered.
  void stop() PLATFORM_EXCLUDES(running_lock_);

  /// As vx_msg_enqueue and vx_msg_dequeue. A handle is a number that is used once, so a stale one is harmless.
  void *enqueue(message_ptr sent, uint32_t channel, uint32_t key, uint32_t destination, int32_t repeat,
                uint32_t interval) PLATFORM_EXCLUDES(running_lock_);
  void dequeue(void *handle, uint32_t channel, uint32_t key);
  void register_hook(channel_dispatch::hook_function hook, uint32_t channel);
  void unregister_hook(channel_dispatch::hook_function hook);

  messaging_statistics statistics();
  /// As messaging_network_fault.
  std::string network_fault() { return network_.fault(); }
  /// From the next datagram on.
  void set_keys(const seal_keys &keys) PLATFORM_EXCLUDES(running_lock_);
  void block(uint32_t node_mask) { receiver_.block(node_mask); }
  /// As messaging_expect.
  void expect(uint64_t cluster_id, uint32_t build) { receiver_.expect(cluster_id, build); }
  /// As messaging_set_filter.
  void set_filter(message_filter *filter) { gate_.set(filter); }

private:
  void end_threads();
  const char *refusal(const message &one) PLATFORM_REQUIRES_SHARED(running_lock_);  // null: it can be sent

  messaging_counters counters_;
  filter_gate gate_{counters_};
  transmitter out_{counters_, gate_};
  repeat_queue repeats_{out_};
  bulk_sender bulk_{out_};
  receiver::channels channels_;
  sealing seals_;
  network_attachment network_;
  receiver receiver_{counters_, channels_, bulk_, seals_, network_};
  std::atomic<uint64_t> next_id_{1};
  // Held shared while a message is sent, so that stop does not close a socket in use.
  shared_mutex running_lock_;
  std::unique_ptr<transport> transport_ PLATFORM_GUARDED_BY(running_lock_);  // null while stopped
  bool running_ PLATFORM_GUARDED_BY(running_lock_) = false;
};

}  // namespace platform
