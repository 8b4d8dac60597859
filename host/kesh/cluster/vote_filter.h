/// What a node that may have forgotten must not take part in, at the gate of messaging. It sees the greatest register
/// on the way.
///
/// Of channel 5 it knows only how a payload of it begins:
///
///   offset  width  content, little-endian
///   0       2      type; 4 = MISSING: the sender lacks a payload that was decided
///   3       1      node that submitted the payload
///   4       4      its message id
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "cluster/hello.h"
#include "cluster/register_watch.h"
#include "message_filter.h"

namespace kesh
{

class vote_filter : public platform::message_filter
{
public:
  vote_filter(uint64_t cluster_id, uint32_t build) : watch_(cluster_id, build) {}

  /// From now on. At first it lets nothing pass that a node which may have forgotten must not hear or say.
  void let_votes_pass(bool pass) { passes_.store(pass, std::memory_order_relaxed); }
  /// Of payloads up to these ids, per node, it never lets a MISSING pass, in or out: this node may have held them on a
  /// disk that it lost, so its word, or its count of others' words, must not make one lost.
  void hold_missing(const message_ids &up_to);
  const register_watch &watch() const { return watch_; }

  bool lets_in(const platform::message_view &one) noexcept override;
  bool lets_out(const platform::message_view &one) noexcept override;

private:
  bool holds(const platform::message_view &one) const;

  register_watch watch_;
  std::atomic<bool> passes_ = false;
  std::array<std::atomic<uint32_t>, HELLO_NODES_MAX> held_{};
};

}  // namespace kesh
