#include "control/operations.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <exception>

#include "control/request.h"
#include "exit_codes.h"
#include "platform.h"

namespace kesh
{

namespace
{

// A client that does not read must not hold a place among the questions. Streams may wait for theirs.
constexpr timeval SEND_TIMEOUT{10, 0};

void make_blocking(int fd, bool may_wait)
{
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  if (!may_wait) {
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &SEND_TIMEOUT, sizeof SEND_TIMEOUT);
  }
}

}  // namespace

operation_runner::operation_runner(operation_table table, const operation_limits &limits, std::function<void()> ended)
    : table_(std::move(table)), limits_(limits), ended_(std::move(ended))
{
}

std::string operation_runner::full_text(operation_class kind) const
{
  static constexpr const char *NAMES[] = {"questions", "stop and leave requests", "commands", "streams"};
  const size_t limits[] = {limits_.questions, limits_.endings, limits_.commands, limits_.streams};
  const auto index = static_cast<size_t>(kind);
  if (counts_[index] >= limits[index]) {
    return std::string("too many ") + NAMES[index] + " at once (limit " + std::to_string(limits[index]) + ')';
  }
  if (left_ >= limits_.left) {
    return "too many operations go on whose clients have left (limit " + std::to_string(limits_.left) + ')';
  }
  return {};
}

bool operation_runner::start(uint64_t id, nlohmann::json request, std::shared_ptr<control_peer> peer)
{
  const auto found = table_.find(request.at("op").get_ref<const std::string &>());
  if (found == table_.end()) {
    peer->refuse(EXIT_USAGE, "unknown operation");
    return false;
  }
  const operation &what = found->second;
  const std::string full = full_text(what.kind);
  if (!full.empty()) {
    peer->refuse(EXIT_REFUSED, full);
    return false;
  }
  make_blocking(peer->fd(), what.kind == operation_class::stream);
  running &one = running_[id];
  one.peer = std::move(peer);
  one.kind = what.kind;
  try {
    one.thread = std::thread([this, &what, &one, request = std::move(request)] { run(what, request, one); });
  } catch (const std::exception &failure) {
    one.peer->refuse(EXIT_RUNTIME, failure.what());
    running_.erase(id);
    return false;
  }
  count(one)++;
  return true;
}

void operation_runner::run(const operation &what, const nlohmann::json &request, running &one)
{
  control_peer &peer = *one.peer;
  try {
    what.run(request, peer);
  } catch (const request_error &failure) {
    peer.refuse(EXIT_USAGE, failure.what());
  } catch (const nlohmann::json::exception &failure) {
    peer.refuse(EXIT_USAGE, std::string("the request is not understood: ") + failure.what());
  } catch (const std::exception &failure) {
    platform::log_line(platform::log_level::warning, std::string("control socket: ") + failure.what());
    if (!peer.has_answered()) {
      peer.refuse(EXIT_RUNTIME, failure.what());
    }
  }
  if (!peer.is_kept_open()) {
    peer.shut();
  }
  one.done = true;
  ended_();
}

void operation_runner::client_left(uint64_t id)
{
  const auto found = running_.find(id);
  if (found != running_.end() && !found->second.has_left) {
    count(found->second)--;
    found->second.has_left = true;
    count(found->second)++;
    found->second.peer->set_gone();
  }
}

std::vector<uint64_t> operation_runner::reap()
{
  std::vector<uint64_t> ids;
  for (auto at = running_.begin(); at != running_.end();) {
    running &one = at->second;
    if (!one.done) {
      ++at;
      continue;
    }
    one.thread.join();
    count(one)--;
    ids.push_back(at->first);
    at = running_.erase(at);
  }
  return ids;
}

void operation_runner::stop()
{
  for (auto &[id, one] : running_) {
    one.peer->set_gone();
    if (!one.peer->is_kept_open()) {
      one.peer->shut();
    }
  }
  for (auto &[id, one] : running_) {
    one.thread.join();
  }
  running_.clear();
}

}  // namespace kesh
