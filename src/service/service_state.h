/// Flags and identity of the service: one per process, read by every layer without a lock.
#pragma once

#include <atomic>
#include <cstdint>

struct cons_service_state {
  std::atomic<bool> initialised{false};
  /// False while the service is active. Set by stop and, on any thread, by isolation.
  std::atomic<bool> stopped{true};

  /// MAC address cluster.node[0].mac read as a hexadecimal number; 0 before the first start.
  std::atomic<uint64_t> cluster_id{0};
  std::atomic<uint32_t> node_count{0};
  std::atomic<uint32_t> quorum{0};  ///< node_count / 2 + 1
  std::atomic<uint32_t> node_id{0};
  std::atomic<bool> durable_payloads{false};
  std::atomic<uint32_t> node_addr{0};  ///< 127.1.0.node_id, network byte order
};
inline constinit cons_service_state cons_service;
