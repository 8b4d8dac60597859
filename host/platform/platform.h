/// What the process itself needs of the host layer. The functions that the library calls are in vx_host.h.
/// Order of use: config_load, log_open, messaging_start, then the library; messaging_stop after vx_cons_cleanup.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace platform
{

class message_filter;

/// Reads the configuration file into the store behind vx_cfg_*; vx_cfg_save writes back to it. On failure
/// returns false, `error` says file, line, key and why, and the store is unchanged. A missing file is an error, and
/// so is an empty one.
bool config_load(const std::string &path, std::string &error);

/// Text of a key, or `fallback` if it is not set.
std::string config_text(const std::string &key, const std::string &fallback);

/// Number of a key within [low, high], or `fallback` if it is not set. On a bad value returns false and `error`
/// names file, line, key and why.
bool config_number(const std::string &key, int64_t low, int64_t high, int64_t fallback, int64_t &value,
                   std::string &error);

/// For other checks of a key's value: sets `error` to file, line, key and why, and returns false.
bool config_refuse(const std::string &key, const std::string &why, std::string &error);

/// Opens the log from the keys log.level, log.file (unset: stderr), log.max_size, log.files. The library's lines
/// (vx_log) have level "info", vx_log_err "error". Before this call lines go to stderr.
bool log_open(std::string &error);

/// The host's own lines.
enum class log_level { debug, info, warning, error };
void log_line(log_level level, const std::string &text);

/// Why a received datagram was not handed to a hook, or a message not sent.
enum class drop_reason {
  foreign,
  damaged,
  no_hook,
  blocked,
  receive_overflow,
  send_failed,
  filtered_in,
  filtered_out,
  count
};
const char *drop_reason_name(drop_reason reason);

struct messaging_statistics {
  uint64_t sent = 0;      ///< datagrams given to the kernel
  uint64_t received = 0;  ///< datagrams handed to a hook
  uint64_t queued = 0;    ///< messages now queued for repetition
  std::array<uint64_t, static_cast<size_t>(drop_reason::count)> dropped{};
};

/// Opens the transport and starts the service's threads, from the keys cluster.node_id and messaging.*.
bool messaging_start(std::string &error);
/// Ends the threads and closes the sockets. The library must be cleaned up before.
void messaging_stop();
messaging_statistics messaging_read_statistics();
/// From now on the filter decides what comes in and what goes out (message_filter.h); null: everything does. At any
/// time, from any thread. What was judged before the return may still pass.
void messaging_set_filter(message_filter *filter);
/// Test aid: drops everything that comes from the nodes of the mask (bit n - 1 = node n). 0 ends it.
void messaging_block(uint32_t node_mask);
/// Test aid: tells the broker that this process has reached the point `kind` and waits until the broker lets it go on.
/// So the process can be killed exactly there. Returns at once over UDP, while messaging is not started, and when the
/// broker has gone. Any thread.
void messaging_mark(const char *kind);

}  // namespace platform
