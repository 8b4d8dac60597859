#include "submit/batcher.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "platform.h"

namespace kesh
{

using platform::lock_scope;
using std::chrono::steady_clock;

batcher::batcher(uint8_t origin, uint64_t life, const submit_limits &limits, batcher_hooks hooks)
    : origin_(origin), life_(life), hooks_(std::move(hooks)), outbox_(origin, life, limits)
{
  try {
    for (std::thread &thread : sender_threads_) {
      {
        const lock_scope scope(lock_);
        senders_++;
      }
      thread = std::thread([this] { send_loop(); });
    }
    clock_thread_ = std::thread([this] { clock_loop(); });
  } catch (...) {
    stop();
    join();
    throw;
  }
}

batcher::~batcher()
{
  stop();
  join();
}

uint64_t batcher::open_client(const client_options &options, std::string &refusal)
{
  const lock_scope scope(lock_);
  return outbox_.open_client(options, refusal);
}

push_verdict batcher::push(uint64_t client, std::span<new_item> items)
{
  const auto now = steady_clock::now();
  const lock_scope scope(lock_);
  const outbox::readiness before = outbox_.ready();
  const auto deadline_before = outbox_.next_deadline();
  push_verdict verdict = outbox_.push(client, items, now);
  wake_sender(before);
  if (outbox_.next_deadline() < deadline_before) {
    clock_.signal();
  }
  return verdict;
}

void batcher::close_client(uint64_t client)
{
  const lock_scope scope(lock_);
  outbox_.close_client(client);
}

void batcher::applied(uint8_t origin, uint64_t life, std::span<const applied_item> items)
{
  if (origin != origin_ || life != life_) {
    return;
  }
  const auto now = steady_clock::now();
  result_list results;
  {
    const lock_scope scope(lock_);
    const outbox::readiness before = outbox_.ready();
    for (const applied_item &one : items) {
      outbox_.applied(one.sequence, one.line, now);
    }
    results = outbox_.take_results();
    wake_sender(before);
  }
  results.hand_out();
}

void batcher::activity_changed()
{
  const lock_scope scope(lock_);
  activity_++;
  work_.signal_all();
}

void batcher::stop()
{
  result_list results;
  {
    const lock_scope scope(lock_);
    outbox_.stop(steady_clock::now());
    results = outbox_.take_results();
    work_.signal_all();
  }
  results.hand_out();
}

void batcher::join()
{
  for (std::thread &thread : sender_threads_) {
    if (thread.joinable()) {
      thread.join();
    }
  }
  if (clock_thread_.joinable()) {
    clock_thread_.join();
  }
}

std::chrono::seconds batcher::oldest_wait()
{
  const lock_scope scope(lock_);
  const auto oldest = outbox_.oldest();
  return oldest == outbox::NEVER
             ? std::chrono::seconds(0)
             : std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - oldest);
}

submit_counts batcher::counts()
{
  const lock_scope scope(lock_);
  return outbox_.counts();
}

uint64_t batcher::activity()
{
  const lock_scope scope(lock_);
  return activity_;
}

void batcher::wake_sender(outbox::readiness before)
{
  if (outbox_.ready() > before) {
    work_.signal();
  }
}

void batcher::send_loop()
{
  for (;;) {
    const uint64_t seen = activity();
    const bool is_active = hooks_.is_active();
    outbox::step found;
    result_list results;
    if (!next(is_active, seen, found, results)) {
      break;
    }
    results.hand_out();
    if (found.out) {
      send(*found.out);
    }
  }
  const lock_scope scope(lock_);
  senders_--;
  clock_.signal();
}

bool batcher::next(bool is_active, uint64_t activity, outbox::step &found, result_list &results)
{
  const lock_scope scope(lock_);
  if (outbox_.is_stopped()) {
    return false;
  }
  const auto now = steady_clock::now();
  found = outbox_.take(now, is_active);
  results = outbox_.take_results();
  if (found.out) {
    if (outbox_.ready() != outbox::readiness::nothing) {
      work_.signal();  // the other one may go on
    }
  } else if (results.empty() && activity == activity_) {
    const auto check_at = is_active || !outbox_.has_waiting() ? outbox::NEVER : now + ACTIVITY_CHECK;
    const auto until = std::min(found.look_again, check_at);
    if (until == outbox::NEVER) {
      work_.wait(lock_);
    } else {
      work_.wait_until(lock_, until);
    }
  }
  return true;
}

void batcher::send(const outbox::taken &out)
{
  bool delivered = false;
  try {
    delivered = hooks_.distribute(payload_encode(out.content)) == 0;
    if (delivered) {
      ask_for_lines(out.slot);
    }
  } catch (const std::exception &failure) {
    platform::log_line(platform::log_level::warning, std::string("submission: ") + failure.what());
  }
  result_list results;
  {
    const auto now = steady_clock::now();
    const lock_scope scope(lock_);
    outbox_.ended(out.slot, delivered, now);
    results = outbox_.take_results();
  }
  results.hand_out();
}

void batcher::ask_for_lines(size_t slot)
{
  std::vector<uint64_t> asked;
  {
    const lock_scope scope(lock_);
    asked = outbox_.unanswered(slot);
  }
  std::vector<applied_item> found;
  for (const uint64_t sequence : asked) {
    if (const std::optional<uint64_t> line = hooks_.find_line(sequence)) {
      found.push_back({sequence, *line});
    }
  }
  if (!found.empty()) {
    applied(origin_, life_, found);
  }
}

void batcher::clock_loop()
{
  result_list results;
  while (wait_for_deadline(results)) {
    results.hand_out();
  }
}

bool batcher::wait_for_deadline(result_list &results)
{
  const lock_scope scope(lock_);
  for (;;) {
    if (senders_ == 0) {
      return false;
    }
    const auto now = steady_clock::now();
    const auto deadline = outbox_.next_deadline();
    if (deadline <= now) {
      const outbox::readiness before = outbox_.ready();
      outbox_.expire(now);
      results = outbox_.take_results();
      wake_sender(before);
      return true;
    }
    if (deadline == outbox::NEVER) {
      clock_.wait(lock_);
    } else {
      clock_.wait_until(lock_, deadline);
    }
  }
}

}  // namespace kesh
