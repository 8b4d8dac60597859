#include "submission.h"

#include <chrono>

namespace kesh
{

using platform::lock_scope;
using std::chrono::steady_clock;

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
  changed_.signal_all();
  return true;
}

void submission::finish()
{
  {
    const lock_scope scope(lock_);
    finished_ = true;
    changed_.signal_all();
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
  changed_.signal_all();
  return true;
}

void submission::run()
{
  const uint32_t thread = host_.next_thread();
  waiting_line line;
  bool tried = false;
  while (pop(line, tried)) {
    if (!tried) {
      host_.submissions.failed++;
      answer(line, {.reason = "not tried, a line before it failed"}, 0);
      continue;
    }
    const auto started = steady_clock::now();
    const send_verdict given = line_send(host_, host_.next_sequence(), line.text, thread, {.timeout_s = timeout_s_});
    const auto time_us = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - started).count();
    answer(line, given, time_us);
  }
}

void submission::answer(const waiting_line &line, const send_verdict &given, int64_t time_us)
{
  const std::string head = std::to_string(line.number) + ' ' + std::to_string(given.sequence) + ' ';
  if (given.acknowledged) {
    client_.send("ok " + head + std::to_string(time_us) + ' ' + std::to_string(given.attempts) + '\n');
    return;
  }
  client_.send("failed " + head + std::to_string(given.attempts) + ' ' + given.reason + '\n');
  const lock_scope scope(lock_);
  failed_ = true;
  changed_.signal_all();
}

}  // namespace kesh
