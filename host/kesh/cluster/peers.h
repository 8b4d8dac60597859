/// What this node has heard of the others. Time comes in as an argument, in ms of any clock that never goes back.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "cluster/hello.h"

namespace kesh
{

/// What a hello is to this node.
enum class hello_kind : uint8_t {
  member,            ///< of the same cluster and generation
  other_generation,  ///< of the same cluster; its decisions and hashes mean nothing here
  other_cluster,
  own,         ///< this node's, come back
  own_number,  ///< of another daemon with this node's number
  old,         ///< overtaken by a later one of the same daemon
};

struct heard_hello {
  hello last;
  int64_t heard_ms = 0;
};

/// A node that this one remembers as further than it now is.
struct lost_decisions {
  uint32_t told_by = 0;
  uint32_t decision = 0;

  bool operator==(const lost_decisions &) const = default;
};

class peers
{
public:
  peers(cluster_identity cluster, uint32_t node, uint64_t session)
      : cluster_(std::move(cluster)), node_(node), session_(session)
  {
  }

  /// Remembers what it says, by its kind. A hello of kind own or old leaves no trace.
  hello_kind heard(const hello &said, int64_t now_ms);

  /// The last one of that node, 1 to 16, whatever its generation; null: none.
  const heard_hello *last_of(uint32_t node) const;
  /// The last one of any other cluster.
  const std::optional<heard_hello> &stranger() const { return stranger_; }
  /// How many came from another daemon with this node's number.
  uint64_t own_number_count() const { return own_number_count_; }

  /// For this node's hello.
  std::vector<heard_line> lines(int64_t now_ms) const;

  /// Set if another node remembers a higher decision of this node than its disk has now: it must stop, since it has
  /// forgotten votes.
  std::optional<lost_decisions> disk_went_back(uint32_t own_decision) const;

private:
  hello_kind kind_of(const hello &said) const;

  cluster_identity cluster_;
  uint32_t node_;
  uint64_t session_;
  std::array<std::optional<heard_hello>, HELLO_NODES_MAX> last_;
  std::array<uint32_t, HELLO_NODES_MAX> decision_{};  // greatest heard of each in this generation
  std::optional<heard_hello> stranger_;
  uint64_t own_number_count_ = 0;
  lost_decisions remembered_of_us_;
};

}  // namespace kesh
