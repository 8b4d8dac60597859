/// The greatest register id in what passes on channel 3: how far the cluster's votes are, even for a node that has no
/// disk to tell it.
#pragma once

#include <atomic>
#include <cstdint>

#include "message_filter.h"

namespace kesh
{

class register_watch
{
public:
  /// Takes notice only of messages of this cluster and build, as the library does.
  register_watch(uint64_t cluster_id, uint32_t build) : cluster_id_(cluster_id), build_(build) {}

  /// Any message, in or out. Any thread, from a filter too: it waits for nothing.
  void note(const platform::message_view &one) noexcept;
  /// 0: none was seen.
  uint32_t greatest() const { return greatest_.load(std::memory_order_relaxed); }

private:
  const uint64_t cluster_id_;
  const uint32_t build_;
  std::atomic<uint32_t> greatest_ = 0;
};

}  // namespace kesh
