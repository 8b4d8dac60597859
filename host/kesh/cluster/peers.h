/// What this node has heard of the others. Time comes in as an argument, in ms of any clock that never goes back.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "cluster/hello.h"

namespace kesh
{

/// A node whose last hello is older counts as silent.
inline constexpr uint32_t LIVE_MS = 5000;

/// What this node is by its configuration.
struct hello_settings {
  cluster_identity cluster;
  uint32_t build = 0;
  uint32_t node_count = 0;
  uint32_t node = 0;
  uint32_t session = 0;  ///< drawn at random for each start of the daemon
  std::chrono::milliseconds period{1000};
  uint64_t state_max = 0;
};

/// Why the messages of a node do not count here; none: they count.
enum class difference : uint8_t { none, cluster, node_count, state_max, generation, build };

/// The first in that order.
difference difference_of(const hello &said, const hello_settings &own);

/// What a hello is to this node.
enum class hello_kind : uint8_t {
  member,            ///< of the same cluster and generation
  other_generation,  ///< of the same cluster; its decisions and hashes mean nothing here
  other_cluster,
  own,         ///< this node's, come back
  own_number,  ///< of another daemon with this node's number, in this generation
  old,         ///< overtaken by a later one of the same daemon
};

struct heard_hello {
  hello last;
  int64_t heard_ms = 0;
};

/// This node, or its disk, was further in an earlier session than when this one began.
struct lost_decisions {
  uint32_t told_by = 0;
  uint32_t decision = 0;

  bool operator==(const lost_decisions &) const = default;
};

class peers
{
public:
  explicit peers(hello_settings own) : own_(std::move(own)) {}

  /// Remembers what it says, by its kind. A hello of kind own or old leaves no trace.
  hello_kind heard(const hello &said, int64_t now_ms);

  /// The last one of that node, 1 to 16, whatever its generation; null: none.
  const heard_hello *last_of(uint32_t node) const;
  /// The last one of any other cluster.
  const std::optional<heard_hello> &stranger() const { return stranger_; }
  /// How many came from another daemon with this node's number.
  uint64_t own_number_count() const { return own_number_count_; }
  /// Another daemon with this node's number was heard lately: no old hello of this node's last session, if it lasts.
  bool has_double(int64_t now_ms) const;
  bool has_lasting_double(int64_t now_ms) const;

  /// How old the last hello of this session was that the sender had heard when it said this; unset: it had heard none.
  std::optional<uint32_t> echo_age_ms(const hello &said) const;
  /// Whether the sender had heard this session before it said this.
  bool is_echo(const hello &said) const { return echo_age_ms(said).has_value(); }
  /// How many other members have said hello after they heard this session.
  uint32_t echo_count() const;

  /// For this node's hello.
  std::vector<heard_line> lines(int64_t now_ms) const;

  /// Set if another node heard, in an earlier session of this node, of a decision above the one that its disk had when
  /// this session began: it must stop, since it has forgotten votes.
  std::optional<lost_decisions> disk_went_back(uint32_t decision_at_start) const;

private:
  /// The last sessions of a node, the latest first. Hellos overtake each other, so two may alternate.
  struct session_log {
    struct entry {
      uint32_t session = 0;
      uint32_t decision = 0;  // the greatest told
    };
    std::vector<entry> kept;
    uint32_t older = 0;  // of those that are not kept

    void note(uint32_t session, uint32_t decision);
    uint32_t before() const;
  };
  struct double_sighting {
    uint32_t session = 0;
    int64_t first_ms = 0;
    int64_t last_ms = 0;
  };

  hello_kind kind_of(const hello &said) const;
  void note_double(const hello &said, int64_t now_ms);

  const hello_settings own_;
  std::array<std::optional<heard_hello>, HELLO_NODES_MAX> last_;
  std::array<session_log, HELLO_NODES_MAX> sessions_;  // in this generation
  std::array<bool, HELLO_NODES_MAX> has_echoed_{};
  std::optional<heard_hello> stranger_;
  uint64_t own_number_count_ = 0;
  std::optional<double_sighting> double_;
  lost_decisions remembered_of_us_;
};

}  // namespace kesh
