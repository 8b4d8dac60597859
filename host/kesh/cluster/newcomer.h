/// A node without a past: its disk is new, or was emptied, so it has forgotten votes that it may have given. Until it
/// knows more than it can have forgotten it only listens.
///
///     new      takes no part in votes, says of no payload that it lacks it, neither leads nor submits. It has joined
///              when it has heard all other nodes since the start of the daemon, its own decision is at least the top
///              that each of them told first, and its log is delivered to the end
///     joined   votes and submits. In a cluster that forms it does not lead yet: a leader's first question raises its
///              own top, and a node that is still new would wait for a decision that needs its own vote
///     member   all others have joined too, or there is a decision
///     reformed its records were reset on purpose, so nothing that it forgot counts in this generation. It votes; it
///              submits and leads when reform.h lets it, and is a member with the first decision
///
/// The first top that comes with ids is enough, since without them a node does not know what its disk holds: whatever
/// this node had promised was asked for before its daemon started. But where a majority is new, beside a node that has
/// a past, nobody may be left that knows the last decision: then none joins.
///
/// Where others are reformed and nothing is decided yet, one of them goes first: a node that is new has no store to
/// give.
///
/// Its message ids begin above those that the others know: numbers that are used twice would name two payloads. Of
/// payloads up to those ids it never says that it lacks them: it may have held them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "cluster/hello.h"

namespace kesh
{

/// Message ids of this node that were used, but are on no disk of the others.
inline constexpr uint32_t UNKNOWN_IDS_MAX = 65536;

/// The standing with which a node starts. `kept`: what its file says; nothing if there is none for this cluster.
standing standing_at_start(std::optional<standing> kept, bool has_past);

/// Pure. Not synchronised.
class newcomer
{
public:
  newcomer(uint32_t node_count, uint32_t node) : node_count_(node_count), node_(node) {}

  standing stands() const { return stands_; }
  /// At a start of the library. One that becomes new forgets what it has heard.
  void begin(standing from);

  /// A hello of another node of this cluster and generation, which had heard this session before it said it.
  void heard(const hello &said);

  struct own {
    bool is_running = false;    ///< the library is
    bool handled = false;       ///< its log is delivered to the end
    uint32_t decision = 0;      ///< number
    uint32_t msg_id = 0;        ///< the last one that the library's record says was handed out
    uint32_t known_msg_id = 0;  ///< the highest one that the own records and store know
    std::string obstacle{};     ///< of a reformed node: what reform_obstacle() says
    bool has_double = false;    ///< another daemon has this node's number
  };
  struct step {
    std::optional<standing> becomes;  ///< to be made durable, then told to begin()
    std::optional<uint32_t> msg_id;   ///< before that: to be written into the record while the library is stopped
    message_ids held{};               ///< of a node that was new, with `becomes`: standing_file.h
  };
  /// What is to be done now. To be asked again until nothing is.
  step advance(const own &now);

  /// Why this node may not submit, or lead; empty: it may.
  std::string why_no_submission() const;
  std::string why_no_lead() const;

private:
  struct other {
    bool is_heard = false;
    bool has_ids = false;
    bool is_new = true;
    bool is_reformed = false;
    // From the first hello that told ids:
    bool was_new = false;
    uint32_t top = 0;
    uint32_t handed_out = 0;  // id of its own
    uint32_t own_id = 0;      // highest id of this node that it knows
  };

  template <typename predicate>
  std::string numbers_of(predicate matches) const;
  uint32_t top() const;
  std::string obstacle(const own &now) const;
  /// Reformed nodes that go before this one, while nothing is decided.
  std::string forerunners(const own &now) const;
  std::optional<uint32_t> id_to_raise(const own &now) const;
  step advance_new(const own &now);
  step advance_joined(const own &now);
  step advance_reformed(const own &now);

  uint32_t node_count_;
  uint32_t node_;
  standing stands_ = standing::is_new;
  std::array<other, HELLO_NODES_MAX> others_{};
  std::string waits_for_;      // what the last advance() found missing
  bool are_ids_free_ = false;  // of a reformed node: those that it will use were never used
};

}  // namespace kesh
