/// Seals what this node sends, and opens what others send. Which sessions count is agreed upon by greetings: a peer's
/// datagrams count from the moment when a greeting of it told this node's present session, so none that was recorded
/// before can. Of its session only counters above that greeting's count, each once. When the peer begins another
/// session, the one before never counts again.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "guarded.h"
#include "message.h"
#include "messaging_settings.h"
#include "platform.h"
#include "seal/replay_window.h"
#include "seal/seal_keys.h"
#include "seal/sealed_frame.h"

namespace platform
{

/// Greetings travel on the port of this channel.
inline constexpr uint32_t GREETING_PORT_CHANNEL = CHANNEL_FIRST + CHANNEL_COUNT - 1;

/// What became of a datagram.
struct opened {
  std::optional<drop_reason> dropped;  ///< set: it does not count
  bool is_greeting = false;
  bool is_bulk = false;
  bool wants_answer = false;  ///< its sender does not know of this node's session yet
};

class sealing
{
public:
  /// Before any other call. `session`: 1 to SESSION_MAX.
  void begin(uint32_t node, uint64_t session, const seal_keys &keys) PLATFORM_EXCLUDES(out_lock_)
      PLATFORM_EXCLUDES(in_lock_);
  /// From the next datagram on. Sessions stay.
  void set_keys(const seal_keys &keys) PLATFORM_EXCLUDES(out_lock_) PLATFORM_EXCLUDES(in_lock_);
  /// The key that this node sends with; unset: plain.
  std::optional<uint8_t> seals_with() PLATFORM_EXCLUDES(out_lock_);

  /// The datagram that carries the message: its own bytes if this node sends plain, else what was written to `room`,
  /// which needs SEAL_OVERHEAD bytes more. Anew for each transmission. Empty: the room is too small, or libcrypto
  /// refuses. Any thread.
  std::span<const uint8_t> seal(const message &one, std::span<uint8_t> room) PLATFORM_EXCLUDES(out_lock_);
  /// To the group, one for each known key: others may not have the one that this node seals with.
  std::vector<std::vector<uint8_t>> greetings() PLATFORM_EXCLUDES(out_lock_) PLATFORM_EXCLUDES(in_lock_);

  /// Judges a datagram from the node's address that came on the port of `channel`, and opens it. Writes what stands
  /// behind the word of a plain one to `to`, which has as many bytes as the datagram.
  opened open(std::span<const uint8_t> datagram, uint32_t node, uint32_t channel, uint8_t *to)
      PLATFORM_EXCLUDES(in_lock_);
  bool accepts_plain() PLATFORM_EXCLUDES(in_lock_);
  /// Whether a session of the node counts, and the key of what came last.
  std::optional<uint8_t> key_of(uint32_t node) PLATFORM_EXCLUDES(in_lock_);

private:
  using greeting = std::array<uint8_t, NODES_MAX * SESSION_SIZE>;
  using ciphers = std::map<uint8_t, std::unique_ptr<seal_cipher>>;  // by identifier of the key

  struct live_session {
    uint64_t number = 0;  // 0: none counts
    replay_window window;
    ciphers by_key;
    uint8_t last_key = 0;
  };
  struct peer {
    live_session now;
    std::set<uint64_t> replaced;
    uint64_t heard = 0;  // by the last greeting: what this node tells in its own
  };

  opened open_known(live_session &of, const sealed_head &head, std::span<const uint8_t> datagram, uint8_t *to)
      PLATFORM_REQUIRES(in_lock_);
  opened open_greeting(peer &from, const sealed_head &head, std::span<const uint8_t> datagram)
      PLATFORM_REQUIRES(in_lock_);
  seal_cipher *cipher_of(ciphers &among, const sealed_head &head) PLATFORM_REQUIRES(in_lock_);
  uint32_t destination_of(const sealed_head &head) const;

  uint32_t node_ = 0;  // only begin writes these two
  uint64_t session_ = 0;

  mutex out_lock_;
  seal_keys out_keys_ PLATFORM_GUARDED_BY(out_lock_);
  ciphers out_ PLATFORM_GUARDED_BY(out_lock_);
  uint64_t counter_ PLATFORM_GUARDED_BY(out_lock_) = 0;

  mutex in_lock_;
  seal_keys in_keys_ PLATFORM_GUARDED_BY(in_lock_);
  live_session own_ PLATFORM_GUARDED_BY(in_lock_);  // what comes back from the group
  std::array<peer, NODES_MAX> peers_ PLATFORM_GUARDED_BY(in_lock_);
};

}  // namespace platform
