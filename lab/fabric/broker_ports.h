/// Nodes whose messaging service speaks to the fabric itself, by the frames of broker_frame.h.
#pragma once

#include "event_loop.h"
#include "network.h"

#include <list>
#include <string>

namespace fabric
{

class broker_ports
{
public:
  static constexpr const char *KIND = "broker";

  broker_ports(event_loop &loop, network &net);
  ~broker_ports();
  broker_ports(const broker_ports &) = delete;
  broker_ports &operator=(const broker_ports &) = delete;

  /// Throws std::runtime_error.
  void listen(const std::string &path);
  /// Gives what waits to the kernel, as far as it takes it, and closes what has ended. After each round of events.
  void flush();

private:
  class connection;
  struct receive_batch;

  void accept_some();
  void close(connection &gone);

  event_loop &loop_;
  network &network_;
  std::string path_;
  platform::unique_fd listener_;
  std::unique_ptr<receive_batch> batch_;
  std::list<connection> connections_;
};

}  // namespace fabric
