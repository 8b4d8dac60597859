/// Says hello once a second and judges what the others say.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cluster/agreement.h"
#include "cluster/hello.h"
#include "cluster/peers.h"
#include "guarded.h"

namespace kesh
{

/// What only the node itself knows; hello.h says what each means.
struct own_facts {
  node_role role = node_role::stopped;
  standing stands = standing::member;
  uint32_t decision = 0;
  uint32_t top = 0;
  told_position position;
  bool handled = false;
  bool could_lead = false;
  std::optional<message_ids> ids;
  std::string reason;
  /// The decision with which this session began. Unset: it was not read, or this node was new then, and is known to
  /// have forgotten.
  std::optional<uint32_t> decision_at_start;
};

struct peer_view {
  hello last;
  uint32_t age_ms = 0;
  std::optional<uint32_t> echo_age_ms;  ///< as peers::echo_age_ms
  bool is_member = false;               ///< of this generation
  agreement_verdict verdict;
};

struct cluster_view {
  std::vector<peer_view> peers;  ///< those heard, by number
  std::optional<peer_view> stranger;
  uint64_t own_number_count = 0;
  bool has_double = false;          ///< another daemon with this node's number was heard lately
  bool has_lasting_double = false;  ///< and for longer than hellos of its own last session can be on their way
  uint32_t echoes = 0;              ///< other members that have said hello after they heard this session
  std::optional<outvoted> barred;
  std::optional<lost_decisions> disk_went_back;  ///< once set it stays
};

/// What the service asks and tells, all on its own thread, with no lock held. None may call the service's start or
/// stop. If one throws, a line says so once, and the service goes on with the next hello.
struct hello_functions {
  std::function<own_facts()> facts;
  /// A member said hello, after it had heard this session. May be null.
  std::function<void(const hello &)> heard;
  agreement::hash_lookup own_hash;  ///< nothing if the store's number is not that of the position any more
  std::function<void(std::string_view hello)> send;
  /// A verdict, `barred`, `disk_went_back`, `echoes` or one of the doubles has changed. May be null.
  std::function<void(const cluster_view &)> changed;
};

class hello_service
{
public:
  hello_service(hello_settings settings, hello_functions functions);
  ~hello_service() { stop(); }

  /// Throws std::system_error. start and stop: one thread at a time.
  void start() PLATFORM_EXCLUDES(lock_);
  /// Waits for a function that runs, and ends the thread.
  void stop() PLATFORM_EXCLUDES(lock_);

  /// The payload of a message of channel 7. From the receive hook: any thread, never waits for the service's work.
  void receive(std::string_view bytes) noexcept PLATFORM_EXCLUDES(lock_);

  /// Any thread.
  cluster_view view() PLATFORM_EXCLUDES(lock_);
  /// Hellos that could not be read, or for which there was no room.
  uint64_t dropped() PLATFORM_EXCLUDES(lock_);

private:
  using clock = std::chrono::steady_clock;
  struct arrival {
    hello said;
    int64_t heard_ms = 0;
  };

  void run() PLATFORM_EXCLUDES(lock_);
  void work(const std::vector<arrival> &arrived, bool is_due) PLATFORM_EXCLUDES(lock_);
  void say_hello();
  void judge() PLATFORM_EXCLUDES(lock_);
  cluster_view make_view(int64_t now_ms) const;

  const hello_settings settings_;
  const hello_functions functions_;
  std::thread thread_;  // start and stop only

  // Only the thread uses these.
  peers peers_;
  agreement agreement_;
  std::optional<own_facts> facts_;
  std::optional<lost_decisions> disk_went_back_;
  uint64_t number_ = 0;
  bool has_failed_ = false;

  platform::mutex lock_;
  platform::condition changed_;
  bool stopping_ PLATFORM_GUARDED_BY(lock_) = false;
  std::vector<arrival> inbox_ PLATFORM_GUARDED_BY(lock_);
  uint64_t dropped_ PLATFORM_GUARDED_BY(lock_) = 0;
  cluster_view view_ PLATFORM_GUARDED_BY(lock_);
  int64_t viewed_ms_ PLATFORM_GUARDED_BY(lock_) = 0;
};

}  // namespace kesh
