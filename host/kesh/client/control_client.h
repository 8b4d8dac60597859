/// The client's end of the control socket.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "client/socket_text.h"

namespace kesh
{

/// Connects, sends one request, takes the answer. Errors go to stderr.
class control_client
{
public:
  using wait_time = std::chrono::duration<double>;
  static constexpr wait_time FOREVER{0};

  /// False, and nothing is printed, if no daemon answers at `path`; errno says why.
  bool connect(const std::string &path, socket_deadline deadline = socket_deadline::max());
  /// After connect(). Returns EXIT_OK and fills `reply`, or the exit code of the failure. A daemon that does not answer
  /// by the deadline is one that cannot be reached.
  int ask(const nlohmann::json &request, nlohmann::json &reply, socket_deadline deadline = socket_deadline::max());
  /// Both, within `wait`.
  int request(const std::string &path, const nlohmann::json &request, nlohmann::json &reply, wait_time wait = FOREVER);

  /// The lines that follow the answer.
  read_result read_line(std::string &line, socket_deadline deadline = socket_deadline::max())
  {
    return reader_->read_line(line, 4 * SOCKET_LINE_MAX + 4096, deadline);
  }
  int fd() const { return fd_.get(); }

private:
  std::string path_;
  platform::unique_fd fd_;
  std::optional<socket_reader> reader_;
};

/// Now and `wait`; the end of time for FOREVER.
socket_deadline deadline_after(control_client::wait_time wait);

}  // namespace kesh
