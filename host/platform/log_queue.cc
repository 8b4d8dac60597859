#include "log_queue.h"

#include <utility>

namespace platform
{

log_queue::log_queue(size_t bytes_max, writer write, drop_teller tell_drop)
    : bytes_max_(bytes_max), write_(std::move(write)), tell_drop_(std::move(tell_drop)), thread_([this] { run(); })
{
}

log_queue::~log_queue()
{
  {
    const lock_scope scope(lock_);
    is_ending_ = true;
    pushed_.signal();
  }
  thread_.join();
}

void log_queue::push(log_record line)
{
  const lock_scope scope(lock_);
  if (bytes_ + line.text.size() > bytes_max_) {
    ++dropped_;
    return;
  }
  const size_t size = line.text.size();
  waiting_.push_back(std::move(line));  // first: it may throw
  bytes_ += size;
  ++accepted_;
  if (waiting_.size() == 1) {
    pushed_.signal();
  }
}

bool log_queue::flush(std::chrono::milliseconds limit)
{
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const lock_scope scope(lock_);
  const uint64_t wanted = accepted_;
  while (written_ < wanted) {
    if (!written_cond_.wait_until(lock_, deadline) && written_ < wanted) {
      return false;
    }
  }
  return true;
}

uint64_t log_queue::dropped()
{
  const lock_scope scope(lock_);
  return dropped_;
}

void log_queue::run()
{
  std::vector<log_record> lines;
  uint64_t told = 0;
  for (;;) {
    uint64_t dropped = 0;
    {
      const lock_scope scope(lock_);
      written_ += lines.size();
      written_cond_.signal_all();
      while (waiting_.empty() && !is_ending_) {
        pushed_.wait(lock_);
      }
      if (waiting_.empty()) {
        return;
      }
      lines.clear();
      lines.swap(waiting_);
      bytes_ = 0;
      dropped = dropped_;
    }
    for (const log_record &line : lines) {
      write_(line);
    }
    if (dropped != told) {
      write_(tell_drop_(dropped - std::exchange(told, dropped)));
    }
  }
}

}  // namespace platform
