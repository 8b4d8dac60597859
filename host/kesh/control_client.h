/// The client's end of the control socket.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "socket_text.h"

namespace kesh
{

/// Connects, sends one request, takes the answer. Errors go to stderr.
class control_client
{
public:
  /// Returns EXIT_OK and fills `reply`, or the exit code of the failure.
  int request(const std::string &socket_path, const nlohmann::json &request, nlohmann::json &reply);

  /// The lines that follow the answer.
  read_result read_line(std::string &line) { return reader_->read_line(line, 4 * SOCKET_LINE_MAX + 4096); }
  int fd() const { return fd_.get(); }

private:
  platform::unique_fd fd_;
  std::optional<socket_reader> reader_;
};

}  // namespace kesh
