/// The control socket: one thread accepts, one thread per connection serves.
#pragma once

#include <atomic>
#include <list>
#include <string>
#include <thread>

#include "service.h"
#include "socket_text.h"

namespace kesh
{

class control_server
{
public:
  explicit control_server(service &host) : host_(host) {}
  ~control_server() { stop(); }

  /// Opens the socket and starts the thread. False, and `error` says why, on failure.
  bool start(std::string &error);
  /// Ends all connections and removes the socket file. A connection that asked for the stop stays open.
  void stop();

private:
  struct connection {
    platform::unique_fd fd;  // set before the thread starts
    std::thread thread;      // accept thread only, and stop() after it
    std::atomic<bool> done = false;
    std::atomic<bool> awaits_end = false;  // stays open until the process ends
  };

  void accept_loop();
  void add(platform::unique_fd fd);
  void remove_finished();
  void serve(connection &peer);

  service &host_;
  // Set before the accept thread starts, released after it has ended.
  platform::unique_fd listener_;
  platform::unique_fd stop_event_;
  std::thread thread_;
  std::list<connection> connections_;  // accept thread only, and stop() after it
};

}  // namespace kesh
