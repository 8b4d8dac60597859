/// A load generator inside the daemon. Clients that make lines, each as soon as its last one has its result.
///
/// The text of a line is "load L client C line N ", again and again, cut to the size.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <thread>
#include <vector>

#include "daemon/service.h"

namespace kesh_lab
{

inline constexpr int LOAD_THREADS_MAX = 32;
inline constexpr uint64_t LOAD_BYTES_MAX = 10 << 20;

struct load_options {
  int threads = 1;
  std::vector<uint64_t> payload_bytes = {100};  ///< sizes of the payloads of one line each, in turn
  uint64_t count = 0;                           ///< lines in all; 0: no end
  double seconds = 0;                           ///< no line begins after that; 0: no end
  uint32_t pause_ms = 0;                        ///< of each client between two lines
  double timeout_s = 60;                        ///< of a line
};

struct load_totals {
  uint64_t lines = 0;
  uint64_t acknowledged = 0;
  uint64_t failed = 0;
  uint64_t attempts = 0;
};

class load
{
public:
  /// Starts the threads; throws std::system_error if one cannot be started.
  load(kesh::service &host, const load_options &options);
  /// Waits for the lines that are on their way, at most until their deadline.
  ~load();
  load(const load &) = delete;
  load &operator=(const load &) = delete;

  /// No line begins after this.
  void end() PLATFORM_EXCLUDES(lock_);
  /// Waits until all is done. False at the deadline.
  bool wait(kesh::steady_time deadline) PLATFORM_EXCLUDES(lock_);
  load_totals totals() PLATFORM_EXCLUDES(lock_);

private:
  void run(uint32_t client_number) PLATFORM_EXCLUDES(lock_);
  bool take_line() PLATFORM_EXCLUDES(lock_);
  void take_result(const kesh::item_result &given) PLATFORM_EXCLUDES(lock_);
  void pause(std::chrono::milliseconds length) PLATFORM_EXCLUDES(lock_);

  kesh::service &host_;
  const load_options options_;
  const kesh::steady_time ends_at_;
  const uint32_t number_;
  platform::mutex lock_;
  platform::condition changed_;  // ended, or a thread is done
  bool ended_ PLATFORM_GUARDED_BY(lock_) = false;
  uint64_t begun_ PLATFORM_GUARDED_BY(lock_) = 0;
  load_totals totals_ PLATFORM_GUARDED_BY(lock_);
  size_t running_ PLATFORM_GUARDED_BY(lock_) = 0;
  std::vector<std::thread> threads_;  // constructor and owner only
};

/// The operation of the control socket: sends {"lines","acknowledged","failed","attempts","seconds"} at the end.
void serve_load(kesh::service &host, const nlohmann::json &request, kesh::control_peer &peer);

}  // namespace kesh_lab
