#include "submission.h"

#include <algorithm>
#include <chrono>

#include "vx_cons.h"

namespace kesh
{

using platform::lock_scope;
using std::chrono::steady_clock;

namespace
{

constexpr uint32_t DATA_TYPE_LINES = 0;
// A failed attempt on an active node (no memory, say) is not repeated at once.
constexpr std::chrono::milliseconds RETRY_PAUSE{20};

}  // namespace

submission::submission(service &host, socket_writer &client, int threads, int64_t timeout_s)
    : host_(host), client_(client), timeout_s_(timeout_s), room_(static_cast<size_t>(2 * threads))
{
  try {
    for (int i = 0; i < threads; i++) {
      threads_.emplace_back([this] { run(); });
    }
  } catch (...) {
    finish();
    throw;
  }
}

submission::~submission()
{
  {
    const lock_scope scope(lock_);
    failed_ = true;
  }
  finish();
}

bool submission::push(std::string text)
{
  const lock_scope scope(lock_);
  while (waiting_.size() >= room_ && !failed_) {
    changed_.wait(lock_);
  }
  if (failed_) {
    return false;
  }
  waiting_.push_back({++taken_, std::move(text)});
  changed_.notify_all();
  return true;
}

void submission::finish()
{
  {
    const lock_scope scope(lock_);
    finished_ = true;
    changed_.notify_all();
  }
  for (std::thread &thread : threads_) {
    thread.join();
  }
  threads_.clear();
}

bool submission::pop(waiting_line &line, bool &tried)
{
  const lock_scope scope(lock_);
  while (waiting_.empty() && !finished_) {
    changed_.wait(lock_);
  }
  if (waiting_.empty()) {
    return false;
  }
  line = std::move(waiting_.front());
  waiting_.pop_front();
  tried = !failed_;
  changed_.notify_all();
  return true;
}

void submission::run()
{
  waiting_line line;
  bool tried = false;
  while (pop(line, tried)) {
    if (!tried) {
      answer(line, {.reason = "not tried, a line before it failed"}, 0);
      continue;
    }
    host_.submissions.open++;
    const auto started = steady_clock::now();
    const verdict given = distribute(line.text);
    const auto time_us = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - started).count();
    host_.submissions.open--;
    answer(line, given, time_us);
  }
}

/// One line, attempt after attempt, until it is delivered here.
submission::verdict submission::distribute(const std::string &text)
{
  verdict given;
  given.sequence = host_.next_sequence();
  const auto give_up_at = steady_clock::now() + std::chrono::seconds(timeout_s_);
  journal_line line{{static_cast<uint8_t>(host_.configured.node_id), host_.life, given.sequence}, 0, text};
  for (;;) {
    if (host_.lines.failed()) {
      given.reason = "the journal cannot be written";
      return given;
    }
    if (!host_.wait_active(give_up_at)) {
      given.reason = host_.stopping() ? "the daemon is stopping" : "the node is not active";
      return given;
    }
    line.attempt = ++given.attempts;
    host_.submissions.again += given.attempts > 1 ? 1 : 0;
    const std::string payload = line_record_encode(line);
    const int result = vx_cons_distribute(reinterpret_cast<const uint8_t *>(payload.data()),
                                          static_cast<uint32_t>(payload.size()), DATA_TYPE_LINES);
    if (result == 0) {
      given.acknowledged = !host_.lines.failed();
      given.reason = "delivered, but the journal could not be written";
      return given;
    }
    const auto now = steady_clock::now();
    if (now >= give_up_at || !host_.pause(std::min(now + RETRY_PAUSE, give_up_at))) {
      given.reason = host_.stopping() ? "the daemon is stopping" : "no attempt succeeded in time";
      return given;
    }
  }
}

void submission::answer(const waiting_line &line, const verdict &given, int64_t time_us)
{
  (given.acknowledged ? host_.submissions.acknowledged : host_.submissions.failed)++;
  const std::string head = std::to_string(line.number) + ' ' + std::to_string(given.sequence) + ' ';
  if (given.acknowledged) {
    client_.send("ok " + head + std::to_string(time_us) + ' ' + std::to_string(given.attempts) + '\n');
    return;
  }
  client_.send("failed " + head + std::to_string(given.attempts) + ' ' + given.reason + '\n');
  const lock_scope scope(lock_);
  failed_ = true;
  changed_.notify_all();
}

}  // namespace kesh
