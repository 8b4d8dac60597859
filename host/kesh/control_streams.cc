#include "control_streams.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "exit_codes.h"
#include "file_record.h"
#include "load.h"
#include "submission.h"
#include "vx_cons.h"

namespace kesh
{

using nlohmann::json;
using std::chrono::steady_clock;

namespace
{

// How soon a stream that follows notices that its client has left.
constexpr int FOLLOW_CHECK_MS = 500;
constexpr int64_t TIMEOUT_S_MAX = 1'000'000;
constexpr size_t READ_CHUNK_SIZE = 256 << 10;

/// Reads the journal file at its own pace and sends the line records from a given number on.
class journal_sender
{
public:
  journal_sender(journal &lines, socket_writer &to, uint64_t from) : lines_(lines), to_(to), next_(from) {}

  /// Sends what is there now. False if the client is gone or the file cannot be read.
  bool send_new()
  {
    journal_view view = lines_.view();
    if (view.generation != seen_.generation || !seen_.fd) {
      offset_ = 0;
      rest_.clear();
      if (next_ < view.first_line) {
        if (!to_.send("# lines " + std::to_string(next_) + " to " + std::to_string(view.first_line - 1) +
                      " are not kept on this node\n")) {
          return false;
        }
        next_ = view.first_line;
      }
    }
    seen_ = std::move(view);
    while (offset_ < seen_.size) {
      if (!send_chunk()) {
        return false;
      }
    }
    return true;
  }

  void wait() { lines_.wait_change(seen_, FOLLOW_CHECK_MS); }

private:
  bool send_chunk()
  {
    std::string bytes(std::min<uint64_t>(READ_CHUNK_SIZE, seen_.size - offset_), '\0');
    const ssize_t got = pread(seen_.fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset_));
    if (got <= 0) {
      return false;
    }
    offset_ += static_cast<uint64_t>(got);
    rest_.append(bytes, 0, static_cast<size_t>(got));
    std::string out;
    size_t done = 0;
    for (size_t end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n', done)) {
      const std::string_view record = std::string_view(rest_).substr(done, end + 1 - done);
      if (is_wanted(record)) {
        out += record;
      }
      done = end + 1;
    }
    rest_.erase(0, done);
    return to_.send(out);
  }

  /// "CRC L NUMBER ...", and the number is the next one.
  bool is_wanted(std::string_view record)
  {
    constexpr size_t KIND_OFFSET = 9;
    if (record.size() < KIND_OFFSET + 3 || record[KIND_OFFSET] != static_cast<char>(record_kind::line)) {
      return false;
    }
    uint64_t number = 0;
    for (size_t i = KIND_OFFSET + 2; i < record.size() && record[i] >= '0' && record[i] <= '9'; i++) {
      number = number * 10 + static_cast<uint64_t>(record[i] - '0');
    }
    if (number < next_) {
      return false;
    }
    next_ = number + 1;
    return true;
  }

  journal &lines_;
  socket_writer &to_;
  uint64_t next_;
  uint64_t offset_ = 0;
  std::string rest_;  // half a record
  journal_view seen_;
};

}  // namespace

bool control_peer::accept(const json &fields)
{
  json reply = {{"ok", true}};
  if (fields.is_object()) {
    reply.update(fields);
  }
  return writer.send(reply.dump(-1, ' ', false, json::error_handler_t::replace) + '\n');
}

void control_peer::refuse(int code, const std::string &error)
{
  const json reply = {{"ok", false}, {"code", code}, {"error", error}};
  writer.send(reply.dump(-1, ' ', false, json::error_handler_t::replace) + '\n');
}

bool serve_submit(service &host, const json &request, control_peer &peer)
{
  const int threads = request.value("threads", 1);
  const int64_t timeout_s = request.value("timeout_s", int64_t{60});
  if (threads < 1 || threads > SUBMIT_THREADS_MAX || timeout_s < 0 || timeout_s > TIMEOUT_S_MAX) {
    peer.refuse(EXIT_USAGE, "threads: 1 to " + std::to_string(SUBMIT_THREADS_MAX) + ", timeout: 0 to " +
                                std::to_string(TIMEOUT_S_MAX) + " s");
    return false;
  }
  if (vx_cons_cluster_active() == 0) {
    peer.refuse(EXIT_REFUSED, "the node is not active: kesh status tells more, the log tells why");
    return false;
  }
  submission lines(host, peer.writer, threads, timeout_s);
  if (!peer.accept({{"node", host.configured.node_id}, {"life", hex_text(host.life, 16)}})) {
    return false;
  }
  std::string line;
  read_result result;
  while ((result = peer.reader.read_line(line, SOCKET_LINE_MAX)) == read_result::line && lines.push(std::move(line))) {
  }
  lines.finish();
  if (result == read_result::too_long) {
    peer.writer.send("error a line is longer than " + std::to_string(SOCKET_LINE_MAX) + " bytes\n");
  }
  peer.writer.send("done\n");
  return false;
}

bool serve_load(service &host, const json &request, control_peer &peer)
{
  load_options options;
  options.threads = request.value("threads", options.threads);
  options.payload_bytes = request.value("bytes", options.payload_bytes);
  options.count = request.value("count", options.count);
  options.seconds = request.value("seconds", options.seconds);
  options.pause_ms = request.value("pause_ms", options.pause_ms);
  options.repeat = request.value("repeat", options.repeat);
  options.timeout_s = request.value("timeout_s", options.timeout_s);
  const std::string wrong = load_options_fault(options);
  if (!wrong.empty()) {
    peer.refuse(EXIT_USAGE, wrong);
    return false;
  }
  const auto started = steady_clock::now();
  load generator(host, options);
  if (!peer.accept({{"node", host.configured.node_id}, {"life", hex_text(host.life, 16)}})) {
    return false;
  }
  while (!generator.wait(steady_clock::now() + std::chrono::milliseconds(FOLLOW_CHECK_MS))) {
    if (socket_hung_up(peer.writer.fd())) {
      return false;
    }
  }
  const load_totals totals = generator.totals();
  const std::chrono::duration<double> elapsed = steady_clock::now() - started;
  peer.writer.send(json{{"lines", totals.lines},
                        {"acknowledged", totals.acknowledged},
                        {"failed", totals.failed},
                        {"attempts", totals.attempts},
                        {"seconds", elapsed.count()}}
                       .dump() +
                   '\n');
  return false;
}

bool serve_journal(service &host, const json &request, control_peer &peer)
{
  const bool follow = request.value("follow", false);
  journal_sender sender(host.lines, peer.writer, request.value("from", uint64_t{1}));
  if (!peer.accept({})) {
    return false;
  }
  while (sender.send_new() && follow && !host.stopping() && !socket_hung_up(peer.writer.fd())) {
    sender.wait();
  }
  return false;
}

bool serve_heard(service &host, const json &request, control_peer &peer)
{
  const bool follow = request.value("follow", false);
  if (!peer.accept({})) {
    return false;
  }
  uint64_t sent = 0;
  do {
    std::string out;
    for (const heard_message &message : host.messages.after(sent)) {
      out += std::to_string(message.time_s) + ' ' + std::to_string(message.node) + ' ';
      text_escape(out, message.text);
      out += '\n';
      sent = message.number;
    }
    if (!peer.writer.send(out)) {
      return false;
    }
    if (follow) {
      host.messages.wait_after(sent, FOLLOW_CHECK_MS);
    }
  } while (follow && !host.stopping() && !socket_hung_up(peer.writer.fd()));
  return false;
}

}  // namespace kesh
