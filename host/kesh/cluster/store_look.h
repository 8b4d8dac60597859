/// What the hellos need of the store beyond its position, read with connections of its own.
#pragma once

#include <cstdint>
#include <optional>

#include "cluster/hello.h"
#include "store/store.h"

namespace kesh
{

/// One thread. A hash that cannot be read counts as not kept; look_for_ids throws a store_failure.
class store_look
{
public:
  explicit store_look(store &of) : store_(of) {}

  /// Where the store is, with the number that tells it from those that had its place before, and its checkpoint.
  told_position position();
  /// H(n), if its row is kept and the store is still the one of that position.
  std::optional<chain_hash> hash_at(const told_position &in, uint64_t n);

  /// Looks through some rows for the message ids that they name, the newest first.
  void look_for_ids(const told_position &now);
  /// The highest of each node; nothing before all rows were looked through.
  std::optional<message_ids> ids() const { return is_all_seen_ ? std::optional(ids_) : std::nullopt; }

private:
  void raise(std::string_view after);

  store &store_;
  told_position checkpoint_of_;  // the position for which checkpoint_hash was read last
  uint64_t seen_store_ = 0;
  uint64_t seen_up_to_ = 0;
  uint64_t seen_down_to_ = 0;
  bool is_all_seen_ = false;
  message_ids ids_{};
};

}  // namespace kesh
