/// Tells a node's repeated message from a new one. The messaging service repeats a queued message on its own, also for
/// a node whose threads hang: only a new one proves that the node lives. Any thread, no lock.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/id_batch.h"

class repetition_filter
{
public:
  /// Whether the node's last two messages of this kind had other contents: two may be repeated at a time. `node` is 1
  /// to 16.
  bool is_new(uint32_t node, uint64_t content)
  {
    const uint64_t last = last_[node - 1].exchange(content);
    return last != content && before_[node - 1].exchange(last) != content;
  }

private:
  std::atomic<uint64_t> last_[NODES_MAX] = {};
  std::atomic<uint64_t> before_[NODES_MAX] = {};
};
