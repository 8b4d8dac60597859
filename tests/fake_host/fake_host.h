/// The host, played: every function of vx_host.h, recording what the library does and failing on demand. One per
/// process. All functions may be called from any thread unless said otherwise.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "wire.h"

namespace fake
{

using wire::bytes;
using wire::operator+;

inline constexpr uint64_t CLUSTER_ID = 0x1122334455;
inline constexpr const char *MAC = "00:11:22:33:44:55";
inline constexpr uint32_t MULTICAST = 0x510000e0;
inline constexpr uint32_t CHANNELS[] = {3, 4, 5, 6};
uint32_t address_of(uint32_t node_id);

/// Threads that run receive hooks: one per channel, or one for all.
enum class dispatch { per_channel, one_for_all };

/// Begins with a host that has done nothing; ends its threads. Not while the library is up.
void start(dispatch mode);
void stop();

/// Re-evaluates `condition` whenever the host has seen something (and now and then, for what the host does not see)
/// until it holds. False when it still does not after the deadline.
using condition = std::function<bool()>;
bool wait_for(const condition &holds, std::chrono::milliseconds deadline = std::chrono::seconds(20));
/// Waits until everything injected and sent so far has been handled. False if a hook is still running in the end.
bool settle(std::chrono::milliseconds deadline = std::chrono::seconds(20));

// --- Messages -------------------------------------------------------------------------------------------------

struct sent_message {
  uint32_t channel = 0;
  uint32_t key = 0;
  uint32_t destination = 0;
  int32_t repeat = 0;
  uint32_t interval = 0;
  bytes envelope;
  bytes payload;
  /// First field of the payload: the message's type (its low 16 bits on channel 5).
  uint32_t type() const;
};

std::vector<sent_message> sent();  ///< in order
std::vector<sent_message> sent(uint32_t channel, uint32_t type);
std::vector<sent_message> queued(uint32_t channel, uint32_t key);  ///< repeated and not withdrawn yet
size_t queued_count();
std::vector<uint32_t> hook_channels();  ///< channels that have a hook, sorted

struct dequeue_call {
  bool by_handle = false;
  uint32_t channel = 0;
  uint32_t key = 0;
};
std::vector<dequeue_call> dequeued();

/// Whether our multicasts and messages to ourselves come back (asynchronously). On at start.
void set_loopback(bool is_on);
/// Calls `receiver` with each message sent, on a thread that holds nothing. Null ends it; once that has returned,
/// the old one is not running. It may inject.
void set_receiver(std::function<void(const sent_message &)> receiver);
/// Whether queued messages are sent again and again, every 20 ms. Off at start: tests repeat by hand.
void set_repeats(bool is_on);
/// Sends every queued message once more.
void repeat_queued();

/// Hands a message to the hook of the channel, as if `from_node` had sent it.
void inject(uint32_t channel, uint32_t from_node, const bytes &payload);
/// The same with any envelope: 20 bytes as they come.
void inject_with(uint32_t channel, const bytes &envelope, const bytes &payload);
/// Calls the hook itself, if the channel has one, on this thread: a host may have several threads for one channel.
void call_hook(uint32_t channel, uint32_t from_node, const bytes &payload);
/// A call of the hook that the channel has now, which a thread of the host had begun before the hook was unregistered.
std::function<void()> late_call(uint32_t channel, uint32_t from_node, const bytes &payload);
bytes envelope(uint32_t from_node, size_t length);
/// Keeps what arrives on a channel until released.
void hold(uint32_t channel);
void release(uint32_t channel);

// --- Failures -------------------------------------------------------------------------------------------------

/// memory: malloc and its like, called by the library itself.
enum class call { memory, allocate, enqueue, thread, hash_create, hash_insert, cfg_get, cfg_set, cfg_save, count };
/// Lets the nth call from now (1 = next) and those after it fail, `times` in all.
void fail(call what, uint32_t nth, uint32_t times = 1);
/// Calls since start(), failed ones included.
uint32_t calls(call what);

// --- Everything else ------------------------------------------------------------------------------------------

std::vector<std::string> log_lines();
size_t logged(const std::string &part);  ///< number of lines that contain it
bool wait_logged(const std::string &part, size_t count = 1);
bool in_order(const std::vector<std::string> &parts);  ///< lines containing them, in this order
/// The next thread that logs a line containing `part` waits there until resume(): what it does next then meets what
/// the test has done meanwhile. "register channel 4" is such a place too.
void pause_at(const std::string &part);
bool wait_paused();
void resume();
/// Waits until a receive hook runs that makes no progress any more: it waits for something.
bool wait_hook_blocked();

void set_clock_back(int64_t seconds);  ///< the wall clock, as if between two readings that the library compares

void config_set(const std::string &key, const std::string &value);
std::string config(const std::string &key);  ///< "(unset)" if it is not set
std::vector<std::string> config_calls();     ///< "get key", "set key=value", "unset key", "save 1"
std::vector<std::string> number_calls();     ///< arguments of vx_strtoull, "text,base,0,0,0"
std::vector<uint32_t> tables_created();      ///< bucket counts

int live_threads();  ///< threads of the library that have not ended
/// What the library did against the contract; empty in a sound run.
std::vector<std::string> violations();
/// Messages allocated and never sent.
size_t messages_in_hand();

}  // namespace fake
