/// Tells a node's repeated message from a new one. The messaging service repeats a queued message on its own, also for
/// a node whose threads hang: only a new one proves that the node lives. Any thread, no lock.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/id_batch.h"

class repetition_filter
{
public:
  /// Whether the node's last message of this kind had another content. `node` is 1 to 16.
  bool is_new(uint32_t node, uint64_t content) { return last_[node - 1].exchange(content) != content; }

private:
  std::atomic<uint64_t> last_[NODES_MAX] = {};
};
