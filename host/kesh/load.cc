#include "load.h"

#include <algorithm>

#include "file_record.h"

namespace kesh
{

using platform::lock_scope;
using std::chrono::steady_clock;

namespace
{

steady_time end_of(const load_options &options)
{
  const auto length = std::chrono::duration<double>(options.seconds);
  return options.seconds > 0 ? steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(length)
                             : steady_time::max();
}

}  // namespace

std::string load_options_fault(const load_options &options)
{
  constexpr uint32_t PAUSE_MS_MAX = 60'000;
  constexpr int64_t SECONDS_MAX = 1'000'000;
  if (options.threads < 1 || options.threads > LOAD_THREADS_MAX) {
    return "threads: 1 to " + std::to_string(LOAD_THREADS_MAX);
  }
  const auto &sizes = options.payload_bytes;
  if (sizes.empty() || std::any_of(sizes.begin(), sizes.end(), [](uint64_t size) { return size > LOAD_BYTES_MAX; })) {
    return "bytes: sizes of at most " + std::to_string(LOAD_BYTES_MAX);
  }
  if ((options.count == 0 && options.seconds <= 0) || options.seconds > static_cast<double>(SECONDS_MAX)) {
    return "a count of lines, or seconds up to a million, is needed";
  }
  if (options.pause_ms > PAUSE_MS_MAX || options.timeout_s < 0 || options.timeout_s > SECONDS_MAX) {
    return "pause: at most " + std::to_string(PAUSE_MS_MAX) + " ms; timeout: 0 to a million seconds";
  }
  return {};
}

std::string load_text(const line_tag &tag, uint32_t thread, uint64_t payload_bytes)
{
  const size_t record_size = line_record_encode({tag, 1, ""}).size();
  const size_t size = payload_bytes > record_size ? static_cast<size_t>(payload_bytes) - record_size : 0;
  std::string text = "thread " + std::to_string(thread) + ' ';
  const std::string filler = tag_text(tag) + ' ';
  text.reserve(size + filler.size());
  while (text.size() < size) {
    text += filler;
  }
  text.resize(size);
  return text;
}

load::load(service &host, const load_options &options) : host_(host), options_(options), ends_at_(end_of(options))
{
  running_ = static_cast<size_t>(options_.threads);
  try {
    for (int i = 0; i < options_.threads; i++) {
      threads_.emplace_back([this, i] { run(static_cast<uint64_t>(i)); });
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
  if (ended_ || host_.stopping() || steady_clock::now() >= ends_at_) {
    return false;
  }
  return options_.count == 0 || begun_++ < options_.count;
}

void load::run(uint64_t first_size)
{
  const uint32_t thread = host_.next_thread();
  const send_options how{options_.timeout_s, options_.repeat, &ended_};
  const auto origin = static_cast<uint8_t>(host_.configured.node_id);
  for (uint64_t turn = first_size; take_line(); turn++) {
    const uint64_t sequence = host_.next_sequence();
    const uint64_t size = options_.payload_bytes[turn % options_.payload_bytes.size()];
    const send_verdict given =
        line_send(host_, sequence, load_text({origin, host_.life, sequence}, thread, size), thread, how);
    take_verdict(given);
    const auto pause = std::max(std::chrono::milliseconds(options_.pause_ms),
                                given.acknowledged ? std::chrono::milliseconds(0) : RETRY_PAUSE);
    if (pause.count() > 0) {
      host_.pause(steady_clock::now() + pause);
    }
  }
  const lock_scope scope(lock_);
  running_--;
  changed_.signal_all();
}

void load::take_verdict(const send_verdict &given)
{
  const lock_scope scope(lock_);
  totals_.lines++;
  totals_.attempts += given.attempts;
  (given.acknowledged ? totals_.acknowledged : totals_.failed)++;
}

}  // namespace kesh
