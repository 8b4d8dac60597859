/// The commands of the control socket (see control.h), without the socket.
#pragma once

#include "network.h"
#include "tap_ports.h"

#include <nlohmann/json.hpp>

#include <string>

namespace fabric
{

/// A client that waits for events.
struct event_wait {
  uint64_t since = 0;
  int64_t until_ns = 0;
};

class commands
{
public:
  commands(network &net, tap_ports &taps) : network_(net), taps_(taps) {}

  /// Carries out one line. The answer, or none if it comes later, from answer_wait(wait).
  std::optional<nlohmann::json> run(const std::string &line, event_wait &wait);
  std::optional<nlohmann::json> answer_wait(const event_wait &wait, int64_t now) const;
  bool is_quit_wanted() const { return is_quit_wanted_; }

private:
  nlohmann::json carry_out(const nlohmann::json &command, event_wait &wait);
  nlohmann::json hold(const nlohmann::json &command);
  nlohmann::json arm(const nlohmann::json &command);
  nlohmann::json tap(const nlohmann::json &command);
  nlohmann::json found_events(uint64_t since) const;

  network &network_;
  tap_ports &taps_;
  bool is_quit_wanted_ = false;
};

}  // namespace fabric
