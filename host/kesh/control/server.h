/// The control socket: one thread accepts, reads the requests and serves those who submit; every other operation runs
/// on a thread of its own.
///
/// Nobody keeps others from their answers: each kind of connection has a limit, and a refusal names it. Of connections
/// without a request the oldest goes when there are too many, so a new one always gets in.
#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "control/listener.h"
#include "control/operations.h"
#include "control/submit_connection.h"
#include "guarded.h"

namespace kesh
{

struct control_settings {
  std::string socket_path;
  nlohmann::json submit_fields;  ///< of the answer to {"op": "submit"}
  size_t requests_max = 2048;    ///< connections that have sent no request yet
  std::chrono::milliseconds request_timeout{10'000};
  size_t submissions_max = 4096;
  input_bounds input;
  operation_limits operations;
};

class control_server final : private result_receiver
{
public:
  /// `items` must outlive the server's stop(), and be joined before the server is destroyed: it calls the server.
  control_server(control_settings configured, operation_table operations, item_taker &items);
  ~control_server();

  /// Opens the socket and starts the thread. False, and `error` says why, on failure. May raise the process's soft
  /// limit of descriptors.
  bool start(std::string &error);
  /// Hands out the results that have arrived, ends all connections but those kept open, removes the socket file and
  /// waits for the handlers. Not for handlers.
  void stop();

private:
  using time_point = std::chrono::steady_clock::time_point;
  struct connection {
    uint64_t id = 0;
    platform::unique_fd fd;  // until an operation takes it over
    uint32_t interest = 0;   // as epoll knows it
    // Which of the three it is: without a request, one that submits, an operation.
    std::optional<std::list<connection *>::iterator> request_place;
    std::string request;
    time_point request_deadline;
    std::unique_ptr<submit_connection> submit;
    uint64_t client = 0;  // of items_
    bool has_results = false;
    std::shared_ptr<control_peer> peer;
  };
  struct client_result {
    uint64_t client;
    item_result result;
  };

  void on_results(uint64_t client, std::span<const item_result> results) noexcept override PLATFORM_EXCLUDES(lock_);
  void wake();

  // All below: the server's thread only.
  void loop();
  int wait_ms() const;
  void accept_all();
  void accept_failed(int error);
  void add(platform::unique_fd fd);
  void expire_requests();
  /// Calls `act` for a connection. What it throws, for want of memory, ends that connection alone.
  template <typename action>
  void with(uint64_t id, const action &act);
  void on_event(connection &one, uint32_t events);
  void read_request(connection &one);
  void serve(connection &one, std::string_view line, std::string_view rest);
  void open_submission(connection &one, const nlohmann::json &request, std::string_view rest);
  void open_operation(connection &one, nlohmann::json request);
  void read_lines(connection &one);
  void take_results() PLATFORM_EXCLUDES(lock_);
  /// Submits and answers what can be, and closes the connection if it is done or broken.
  void pump(connection &one);
  bool flush(connection &one);
  void reap_operations();
  void set_interest(connection &one, uint32_t events);
  void end_request(connection &one);
  void refuse(connection &one, int code, const std::string &error);
  void close(connection &one);
  void close_all();

  const control_settings configured_;
  item_taker &items_;
  control_listener listener_;
  platform::unique_fd epoll_;
  platform::unique_fd wake_event_;
  platform::unique_fd reserve_;  // given up to refuse a connection when no descriptor is left
  std::thread thread_;
  std::atomic<bool> stopping_ = false;
  platform::mutex lock_;
  std::vector<client_result> arrived_ PLATFORM_GUARDED_BY(lock_);

  std::vector<char> chunk_;  // what the last read gave
  std::unordered_map<uint64_t, std::unique_ptr<connection>> connections_;
  std::unordered_map<uint64_t, connection *> by_client_;
  std::list<connection *> requests_;  // have sent none yet, the oldest first
  uint64_t last_id_;
  time_point accept_again_{};  // accepting pauses until then
  bool is_accepting_ = true;
  time_point warned_at_{};
  input_bounds bounds_;
  operation_runner operations_;
  std::vector<std::shared_ptr<control_peer>> kept_open_;
};

}  // namespace kesh
