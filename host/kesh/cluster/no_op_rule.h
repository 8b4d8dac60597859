/// When the leader orders no-ops: for a node that waits for a state, which comes with the next log, and for one that is
/// new and waits for a decision that nobody else asks for: of a number that is open, or the first of a reformed
/// cluster.
#pragma once

#include <array>
#include <cstdint>

#include "cluster/hello_service.h"

namespace kesh
{

/// Pure: time comes in, in ms of a clock that never goes back. Not synchronised.
class no_op_rule
{
public:
  /// For one node in need, at most so many: a log has 250 entries. Then it waits for AGAIN_MS.
  static constexpr uint32_t NO_OPS_MAX = 260;
  static constexpr int64_t AGAIN_MS = 600000;
  /// A node that skipped the last entry of its log never says that it handled it; skipping takes 30 s.
  static constexpr int64_t STUCK_MS = 40000;

  /// Whether this node, which leads, should order a no-op now.
  bool wants(const cluster_view &view, const own_facts &own, int64_t now_ms);
  void ordered();

private:
  struct place {
    uint32_t decision = 0;
    uint64_t n = 0;
    int64_t since_ms = 0;
    bool is_in_need = false;
    uint32_t no_ops = 0;  // ordered while it was in need
    int64_t last_ms = 0;  // the last time that it was given one
  };

  bool is_in_need(const peer_view &peer, uint32_t top, const own_facts &own, int64_t now_ms);

  std::array<place, HELLO_NODES_MAX> places_{};
};

}  // namespace kesh
