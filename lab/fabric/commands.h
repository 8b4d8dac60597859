/// The commands of the control socket (see control.h), without the socket.
#pragma once

#include "network.h"
#include "tap_ports.h"

#include <nlohmann/json.hpp>

#include <string>

namespace fabric
{

class commands
{
public:
  commands(network &net, tap_ports &taps) : network_(net), taps_(taps) {}

  /// Carries out one line, and gives the answer.
  nlohmann::json run(const std::string &line);
  bool is_quit_wanted() const { return is_quit_wanted_; }

private:
  nlohmann::json carry_out(const nlohmann::json &command);
  nlohmann::json tap(const nlohmann::json &command);

  network &network_;
  tap_ports &taps_;
  bool is_quit_wanted_ = false;
};

}  // namespace fabric
