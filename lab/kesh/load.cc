#include "load.h"

#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>

#include "control/request.h"
#include "items/item_text.h"

namespace kesh_lab
{

using kesh::item_fate;
using kesh::item_kind;
using kesh::item_result;
using kesh::request_error;
using kesh::request_number;
using kesh::service;
using kesh::steady_time;
using platform::lock_scope;
using std::chrono::steady_clock;

namespace
{

// After a line that was not applied, for instance because too many are open.
constexpr std::chrono::milliseconds REFUSED_PAUSE{20};
// How soon a client that has left is noticed.
constexpr std::chrono::milliseconds LEFT_CHECK{500};

std::atomic<uint32_t> loads = 0;

steady_time end_of(const load_options &options)
{
  const auto length = std::chrono::duration<double>(options.seconds);
  return options.seconds > 0 ? steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(length)
                             : steady_time::max();
}

std::string text_of(const std::string &filler, uint64_t payload_bytes)
{
  constexpr size_t OVERHEAD = kesh::PAYLOAD_HEADER_SIZE + kesh::ITEM_HEADER_SIZE;
  const size_t size = payload_bytes > OVERHEAD ? static_cast<size_t>(payload_bytes) - OVERHEAD : 0;
  std::string text;
  text.reserve(size + filler.size());
  while (text.size() < size) {
    text += filler;
  }
  text.resize(size);
  return text;
}

load_options load_options_parse(const nlohmann::json &request)
{
  constexpr double SECONDS_MAX = 1e6;
  load_options options;
  options.threads = request_number(request, "threads", 1, LOAD_THREADS_MAX, options.threads);
  options.count = request_number<uint64_t>(request, "count", 0, UINT64_MAX, 0);
  options.seconds = request_number(request, "seconds", 0.0, SECONDS_MAX, 0.0);
  options.pause_ms = request_number<uint32_t>(request, "pause_ms", 0, 60'000, 0);
  options.timeout_s = request_number(request, "timeout_s", 0.001, SECONDS_MAX, options.timeout_s);
  if (const auto sizes = request.find("bytes"); sizes != request.end()) {
    options.payload_bytes.clear();
    for (const nlohmann::json &size : *sizes) {
      options.payload_bytes.push_back(
          request_number<uint64_t>({{"bytes", size}}, "bytes", 0, LOAD_BYTES_MAX, LOAD_BYTES_MAX));
    }
  }
  if (options.payload_bytes.empty() || (options.count == 0 && options.seconds <= 0)) {
    throw request_error("sizes, and a count of lines or seconds, are needed");
  }
  return options;
}

}  // namespace

load::load(service &host, const load_options &options)
    : host_(host), options_(options), ends_at_(end_of(options)), number_(++loads)
{
  running_ = static_cast<size_t>(options_.threads);
  try {
    for (int i = 0; i < options_.threads; i++) {
      threads_.emplace_back([this, i] { run(static_cast<uint32_t>(i) + 1); });
    }
  } catch (...) {
    end();
    for (std::thread &thread : threads_) {
      thread.join();
    }
    throw;
  }
}

load::~load()
{
  end();
  for (std::thread &thread : threads_) {
    thread.join();
  }
}

void load::end()
{
  const lock_scope scope(lock_);
  ended_ = true;
  changed_.signal_all();
}

bool load::wait(steady_time deadline)
{
  const lock_scope scope(lock_);
  while (running_ > 0) {
    if (!changed_.wait_until(lock_, deadline)) {
      return running_ == 0;
    }
  }
  return true;
}

load_totals load::totals()
{
  const lock_scope scope(lock_);
  return totals_;
}

bool load::take_line()
{
  const lock_scope scope(lock_);
  if (ended_ || host_.stopping() || steady_clock::now() >= ends_at_) {
    return false;
  }
  return options_.count == 0 || begun_++ < options_.count;
}

void load::pause(std::chrono::milliseconds length)
{
  const auto until = steady_clock::now() + length;
  const lock_scope scope(lock_);
  while (!ended_ && changed_.wait_until(lock_, until)) {
  }
}

void load::run(uint32_t client_number)
{
  const auto timeout = std::chrono::nanoseconds(static_cast<int64_t>(options_.timeout_s * 1e9));
  const std::string who = "load " + std::to_string(number_) + " client " + std::to_string(client_number) + " line ";
  std::string refusal;
  const uint64_t client = host_.waiting->open(timeout, refusal);
  for (uint64_t line = 0; client != 0 && take_line(); line++) {
    const uint64_t size = options_.payload_bytes[(client_number - 1 + line) % options_.payload_bytes.size()];
    const item_result given =
        host_.waiting->submit(client, item_kind::line, text_of(who + std::to_string(line) + ' ', size));
    take_result(given);
    const auto length = std::max(std::chrono::milliseconds(options_.pause_ms),
                                 given.fate == item_fate::applied ? std::chrono::milliseconds(0) : REFUSED_PAUSE);
    if (length.count() > 0) {
      pause(length);
    }
  }
  host_.waiting->close(client);
  const lock_scope scope(lock_);
  running_--;
  changed_.signal_all();
}

void load::take_result(const item_result &given)
{
  const lock_scope scope(lock_);
  totals_.lines++;
  totals_.attempts += given.attempts;
  (given.fate == item_fate::applied ? totals_.acknowledged : totals_.failed)++;
}

void serve_load(service &host, const nlohmann::json &request, kesh::control_peer &peer)
{
  const load_options options = load_options_parse(request);
  const auto started = steady_clock::now();
  load generator(host, options);
  if (!peer.accept({{"node", host.configured.node_id}, {"life", kesh::hex_text(host.life, 16)}})) {
    return;
  }
  while (!generator.wait(steady_clock::now() + LEFT_CHECK)) {
    if (peer.is_gone()) {
      return;
    }
  }
  const load_totals totals = generator.totals();
  const std::chrono::duration<double> elapsed = steady_clock::now() - started;
  peer.send(nlohmann::json{{"lines", totals.lines},
                           {"acknowledged", totals.acknowledged},
                           {"failed", totals.failed},
                           {"attempts", totals.attempts},
                           {"seconds", elapsed.count()}}
                .dump() +
            '\n');
}

}  // namespace kesh_lab
