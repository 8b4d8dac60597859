#include "watcher.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "control/request.h"
#include "daemon/service.h"
#include "items/item_text.h"
#include "load.h"
#include "platform.h"
#include "unbatched.h"
#include "vx_cons.h"

namespace kesh_lab
{

using kesh::control_peer;
using kesh::operation;
using kesh::operation_class;
using nlohmann::json;

namespace
{

// Nobody else is to know them: kesh.conf(5) says nothing of them, and kesh refuses them.
constexpr kesh::config_key LAB_KEYS[] = {{.name = "lab.trace"}};
constexpr uint32_t DATA_TYPE = 0;
constexpr uint32_t SLOW_MS_MAX = 600'000;

/// The hook that this thread is in.
struct hook_call {
  uint64_t entered_ns = 0;
  kesh::journal_end before;
};
thread_local hook_call current;

/// 0 also ends a pause that has begun.
void take_time(const std::atomic<uint32_t> &wait_ms)
{
  using std::chrono::milliseconds;
  const auto entered = std::chrono::steady_clock::now();
  for (;;) {
    const auto left = entered + milliseconds(wait_ms) - std::chrono::steady_clock::now();
    if (left <= left.zero()) {
      return;
    }
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, milliseconds(50)));
  }
}

void warn(const std::string &text)
{
  platform::log_line(platform::log_level::warning, text + ": test aid");
}

void block(const json &request, control_peer &peer)
{
  const auto mask = kesh::request_number<uint32_t>(request, "mask", 0, UINT32_MAX, 0);
  platform::messaging_block(mask);
  warn(mask == 0 ? "messages of all nodes are heard again" : "messages of some nodes are dropped");
  peer.accept();
}

void distribute_bytes(const json &request, control_peer &peer)
{
  const auto bytes = request.at("bytes").get<std::vector<uint8_t>>();
  peer.accept();
  vx_cons_distribute(bytes.data(), static_cast<uint32_t>(bytes.size()), DATA_TYPE);
}

}  // namespace

std::span<const kesh::config_key> watcher::config_keys() const
{
  return LAB_KEYS;
}

bool watcher::begin(kesh::service &host, std::string &error)
{
  host_ = &host;
  return events_.open(platform::config_text("lab.trace", ""), host.life, error);
}

kesh::operation_table watcher::operations(kesh::service &host)
{
  return {
      {"slow", {operation_class::command, [this](const json &request, control_peer &peer) { slow(request, peer); }}},
      {"block", {operation_class::command, block}},
      {"distribute", {operation_class::stream, distribute_bytes}},
      {"unbatched",
       {operation_class::stream,
        [&host](const json &request, control_peer &peer) { serve_unbatched(host, request, peer); }}},
      {"load", {operation_class::stream, [&host](const json &request, control_peer &peer) {
                  serve_load(host, request, peer);
                }}}};
}

void watcher::slow(const json &request, control_peer &peer)
{
  const std::string hook = request.at("hook").get<std::string>();
  const auto wait_ms = kesh::request_number<uint32_t>(request, "ms", 0, SLOW_MS_MAX, 0);
  if (hook != "deliver" && hook != "state") {
    throw kesh::request_error("hook: deliver or state");
  }
  (hook == "deliver" ? deliver_ms_ : state_ms_) = wait_ms;
  warn("the " + hook + " hook takes " + std::to_string(wait_ms) + " ms longer");
  peer.accept();
}

void watcher::noted(std::string_view event, const std::string &detail)
{
  if (detail.empty()) {
    events_.note(event);
  } else {
    events_.note(event, detail);
  }
}

int watcher::distribute(std::string_view payload, const std::function<int()> &call)
{
  if (!events_.on()) {
    return call();
  }
  thread_local const uint32_t sender = ++senders_;
  kesh::payload decoded;
  std::string fault;
  payload_decode(payload, decoded, fault);
  for (const kesh::item &one : decoded.items) {
    events_.note("call", sender, one.sequence, one.attempt, one.bytes.size());
  }
  const int result = call();
  for (const kesh::item &one : decoded.items) {
    events_.note("return", sender, one.sequence, one.attempt, result);
  }
  return result;
}

void watcher::hook_begins(uint32_t type, bool asks_for_state)
{
  current.entered_ns = trace::now_ns();
  if (type == DATA_TYPE) {
    take_time(asks_for_state ? state_ms_ : deliver_ms_);
  }
  if (events_.on()) {
    current.before = host_->lines.end();
  }
}

void watcher::delivered(const kesh::payload &from, const kesh::applied &result)
{
  kesh::journal_end end = current.before;
  for (size_t i = 0; i < from.items.size() && events_.on(); i++) {
    const kesh::item &one = from.items[i];
    const char *what = "doubled";
    if (!result.is_redelivered && result.items[i].is_repeat) {
      what = "repeated";
    } else if (!result.is_redelivered && one.kind != kesh::item_kind::line) {
      what = "no-op";
    } else if (!result.is_redelivered) {
      what = "applied";
      end = {.lines = result.items[i].line, .key = kesh::line_key(result.hash, i)};
    }
    events_.note("deliver", current.entered_ns, kesh::tag_text(from.origin, from.life, one.sequence), one.attempt, what,
                 end.lines, end.key);
  }
}

void watcher::adopted(uint32_t type, size_t bytes)
{
  if (events_.on()) {
    const kesh::journal_end now = host_->lines.end();
    events_.note("adopt", current.entered_ns, type, bytes, now.lines, now.key);
  }
}

void watcher::damaged(uint32_t type, size_t bytes)
{
  events_.note("damaged", current.entered_ns, type, bytes);
}

void watcher::state_made(uint32_t bytes)
{
  if (events_.on()) {
    const kesh::journal_end now = host_->lines.end();
    events_.note("get-state", DATA_TYPE, bytes, now.lines, now.key);
  }
}

}  // namespace kesh_lab
