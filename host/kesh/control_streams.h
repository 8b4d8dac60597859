/// The operations of the control socket that go on for a while: submit, load, journal, heard.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "service.h"
#include "socket_text.h"

namespace kesh
{

/// The daemon's end of a connection.
struct control_peer {
  explicit control_peer(int fd) : reader(fd), writer(fd) {}
  /// Answers with {"ok": true} and the fields given.
  bool accept(const nlohmann::json &fields);
  /// Answers with {"ok": false, "code": code, "error": error}.
  void refuse(int code, const std::string &error);

  socket_reader reader;
  socket_writer writer;
};

/// Each returns false: the connection ends with the operation.
bool serve_submit(service &host, const nlohmann::json &request, control_peer &peer);
/// {"threads", "bytes": [..], "count", "seconds", "pause_ms", "repeat", "timeout_s"}, as in load_options; needs a count
/// or seconds. Ends early when the client leaves. After the answer one line of JSON at the end: {"lines",
/// "acknowledged", "failed", "attempts", "seconds"}.
bool serve_load(service &host, const nlohmann::json &request, control_peer &peer);
/// Sends records of the journal file, unchanged, from line "from" on; with "follow" until the client leaves. A line
/// that begins with "# " tells which lines are not kept here.
bool serve_journal(service &host, const nlohmann::json &request, control_peer &peer);
/// Sends "TIME_S NODE TEXT", text escaped as in the journal.
bool serve_heard(service &host, const nlohmann::json &request, control_peer &peer);

}  // namespace kesh
