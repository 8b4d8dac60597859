/// What the process itself needs of the host layer. The functions that the library calls are in vx_host.h.
/// Order of use: config_load, log_open, messaging_start, then the library; messaging_stop after vx_cons_cleanup.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace platform
{

class message_filter;
struct config_key;

/// Reads the configuration file into the store behind vx_cfg_*; vx_cfg_save writes back to it. On failure
/// returns false, `error` says file, line, key and why, and the store is unchanged. A missing file is an error, and
/// so is an empty one.
bool config_load(const std::string &path, std::string &error);

/// Begins with no key and no file: vx_cfg_save then keeps nothing and succeeds.
void config_begin_empty();

/// Value of a key, or its fallback if it is not set. On a bad value these return false, and `error` names file, line,
/// key, value and what is allowed. A number without a fallback is 0.
bool config_text(const config_key &key, std::string &value, std::string &error);
bool config_number(const config_key &key, int64_t &value, std::string &error);
bool config_toggle(const config_key &key, bool &value, std::string &error);

/// Text of a key whose name is put together, or `fallback` if it is not set. Not checked.
std::string config_text(const std::string &key, const std::string &fallback);

/// For other checks of a key's value: sets `error` to file, line, key and why, and returns false.
bool config_refuse(const std::string &key, const std::string &why, std::string &error);

/// The log. A line is
///
///     2026-01-31 12:00:00.000+0100 68234.123456 n2 18477 info: TEXT
///
/// with the monotonic clock in seconds, the node and the thread. Of the library's lines log_levels.h judges the level.
enum class log_level { debug, info, warning, error };

/// Opens the log from the keys log.level, log.file (unset: stderr, in journald's form if that reads it), log.max_size,
/// log.files and log.queue: bytes of lines that wait for the thread that writes them; 0: whoever logs writes. Before
/// this call lines go to stderr.
bool log_open(std::string &error);
/// Opens the file again, after it was renamed. One thread.
bool log_reopen(std::string &error);
/// "debug", "info", "warning" or "error"; false: none of them.
bool log_set_level(const std::string &name);
/// Waits until what was logged before is written. False: not within `limit`.
bool log_flush(std::chrono::milliseconds limit);
/// Writes what was logged before and closes the file. Later lines go to stderr, written by whoever logs them. False:
/// not within `limit`; then the log stays as it is. One thread.
bool log_close(std::chrono::milliseconds limit);
/// Lines that were dropped, since the disk was too slow for them.
uint64_t log_dropped();
/// Lines of the library that tell of an error, written or not; and of a payload that it gave up, which is one of them.
uint64_t log_library_errors();
uint64_t log_payloads_lost();
/// The last line of the library that said CRITICAL, in any level; empty: none did.
std::string log_last_critical();
/// The host's own lines. Any thread; waits for no disk, unless log.queue is 0.
void log_line(log_level level, const std::string &text);

/// Why a received datagram was not handed to a hook, or a message not sent.
enum class drop_reason {
  stranger,  ///< not from a configured node's address, or of another node than its seal says
  foreign,
  damaged,
  unsealed,     ///< the key file does not accept plain
  unknown_key,  ///< sealed with a key that the key file does not have
  forged,       ///< the seal does not fit
  replayed,     ///< it came before, or is of a session that its node has ended
  unconfirmed,  ///< no greeting has shown yet that its session is of now
  no_hook,
  blocked,
  receive_overflow,
  send_failed,
  other_cluster,  ///< and handed over: libvx_cons drops it, by the cluster id of its envelope
  other_build,    ///< the same by its build number
  filtered_in,
  filtered_out,
  count
};
const char *drop_reason_name(drop_reason reason);

using drop_counts = std::array<uint64_t, static_cast<size_t>(drop_reason::count)>;

struct peer_statistics {
  std::optional<uint8_t> key;  ///< of the last sealed datagram that counted; unset: none did in this session of it
  drop_counts dropped{};       ///< what came from its address
};

struct traffic_statistics {
  uint64_t sent = 0;      ///< datagrams given to the kernel
  uint64_t received = 0;  ///< datagrams handed to a hook
  drop_counts dropped{};
};

struct messaging_statistics : traffic_statistics {
  uint64_t queued = 0;                           ///< messages now queued for repetition
  std::array<traffic_statistics, 5> channels{};  ///< the same by channel - 3
  std::array<peer_statistics, 16> peers{};       ///< by node - 1
  std::optional<uint8_t> seals_with;             ///< the key that this node sends with; unset: plain
  bool accepts_plain = true;
};

/// Opens the transport and starts the service's threads, from the keys cluster.node_id and messaging.*.
bool messaging_start(std::string &error);
/// Ends the threads and closes the sockets. The library must be cleaned up before.
void messaging_stop();
messaging_statistics messaging_read_statistics();
/// Why this node has no network: its address or the group's interface is missing, or down. It goes on by itself when
/// that comes. Empty: it has one, or messaging does not run. Any thread.
std::string messaging_network_fault();
/// Reads the key file (messaging.keys) anew; it counts from the next datagram on. On failure returns false, `error`
/// says what is wrong, and the former keys stay.
bool messaging_reload_keys(std::string &error);
/// From now on the filter decides what comes in and what goes out (message_filter.h); null: everything does. At any
/// time, from any thread. What was judged before the return may still pass.
void messaging_set_filter(message_filter *filter);
/// From now on what comes on channels 3 to 6 with another cluster id or build number is counted as dropped, and warned
/// of. A cluster id of 0: nothing is, as in the beginning. At any time, from any thread.
void messaging_expect(uint64_t cluster_id, uint32_t build);
/// Test aid: drops everything that comes from the nodes of the mask (bit n - 1 = node n). 0 ends it.
void messaging_block(uint32_t node_mask);

}  // namespace platform
