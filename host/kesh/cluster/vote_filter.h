/// What a node that is new must not take part in, at the gate of messaging. It sees the greatest register on the way.
///
/// Of channel 5 it knows only how a payload of it begins:
///
///   offset  width  content, little-endian
///   0       2      type; 4 = MISSING: this node lacks a payload that was decided
#pragma once

#include <atomic>
#include <cstdint>

#include "cluster/register_watch.h"
#include "message_filter.h"

namespace kesh
{

class vote_filter : public platform::message_filter
{
public:
  vote_filter(uint64_t cluster_id, uint32_t build) : watch_(cluster_id, build) {}

  /// From now on. At first it lets nothing pass that a node which is new must not hear or say.
  void let_votes_pass(bool pass) { passes_.store(pass, std::memory_order_relaxed); }
  const register_watch &watch() const { return watch_; }

  bool lets_in(const platform::message_view &one) noexcept override;
  bool lets_out(const platform::message_view &one) noexcept override;

private:
  register_watch watch_;
  std::atomic<bool> passes_ = false;
};

}  // namespace kesh
