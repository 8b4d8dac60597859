#include "bulk_sender.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace platform
{
namespace
{

constexpr size_t QUEUE_MAX_BYTES = size_t{256} << 20;
constexpr size_t BATCH_MAX = 64;
constexpr size_t WINDOW_MAX = 512;
// What the kernel charges a receive buffer for one piece.
constexpr size_t PIECE_CHARGE = 2304;
constexpr std::chrono::milliseconds READER_PAUSE{10};
constexpr std::chrono::nanoseconds COST_MIN{10'000};
// A piece that has not come back by then is lost.
constexpr std::chrono::milliseconds COME_BACK_WAIT{20};
// Shorter than the second after which a node that lost a piece asks for it again.
constexpr std::chrono::milliseconds REPETITION_AGE{500};
constexpr size_t TAKEN_MAX = 1 << 18;

}  // namespace

void bulk_sender::start(size_t receive_buffer)
{
  const size_t pieces = std::max<size_t>(receive_buffer / PIECE_CHARGE, 16);
  {
    const lock_scope lock(lock_);
    cost_ = std::max<clock::duration>(clock::duration(READER_PAUSE) / static_cast<int64_t>(pieces), COST_MIN);
    window_ = std::min(WINDOW_MAX, pieces / 2);
    stopping_ = false;
    in_flight_ = 0;
    paid_until_ = {};
  }
  thread_ = std::thread([this] { run(); });
}

void bulk_sender::stop()
{
  {
    const lock_scope lock(lock_);
    stopping_ = true;
    waiting_.clear();
    changed_.signal();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

// If two pieces had one hash, one transmission would be left out. Transmissions may be lost anyway.
bool bulk_sender::is_repetition(const message &one, clock::time_point now)
{
  if (one.destination != GROUP_ADDRESS) {
    return false;  // nobody else hears it
  }
  const std::string_view bytes(reinterpret_cast<const char *>(one.object()), one.datagram_size());
  const auto [at, is_new] = taken_.try_emplace(std::hash<std::string_view>{}(bytes), now);
  if (!is_new && now - at->second < REPETITION_AGE) {
    return true;
  }
  at->second = now;
  return false;
}

size_t bulk_sender::allowance(clock::time_point now)
{
  const size_t burst = std::min(BATCH_MAX, window_);
  paid_until_ = std::max(paid_until_, now - cost_ * static_cast<int64_t>(burst));
  if (paid_until_ > now || in_flight_ >= window_) {
    return 0;
  }
  return std::min(static_cast<size_t>((now - paid_until_) / cost_), window_ - in_flight_);
}

void bulk_sender::charge(const message &one)
{
  paid_until_ += cost_;
  if (one.destination == GROUP_ADDRESS) {
    ++in_flight_;
  }
}

bool bulk_sender::submit(message_ptr added)
{
  const lock_scope lock(lock_);
  if (stopping_) {
    return false;
  }
  const auto now = clock::now();
  const bool is_idle = waiting_.empty() && !sending_batch_;
  if ((is_idle && !taken_.empty()) || taken_.size() >= TAKEN_MAX) {
    taken_ = {};
  }
  if (is_repetition(*added, now)) {
    return true;
  }
  if (is_idle && allowance(now) > 0) {
    if (out_.send_bulk(*added) != send_result::busy) {
      charge(*added);
      return true;
    }
  }
  if (waiting_.bytes() + sizeof(message) + added->datagram_size() > QUEUE_MAX_BYTES) {
    return false;
  }
  waiting_.push_back(std::move(added));
  if (waiting_.count() == 1) {
    changed_.signal();
  }
  return true;
}

void bulk_sender::remove(uint32_t channel, uint32_t key, bool any_key)
{
  const lock_scope lock(lock_);
  ++removing_;
  while (sending_batch_) {
    batch_ended_.wait(lock_);
  }
  taken_.clear();
  waiting_.remove_if([&](const message &one) { return one.channel == channel && (any_key || one.key == key); });
  if (--removing_ == 0) {
    changed_.signal();
  }
}

void bulk_sender::came_back(size_t count)
{
  const lock_scope lock(lock_);
  const bool was_full = in_flight_ >= window_;
  in_flight_ -= std::min(count, in_flight_);
  if (was_full && in_flight_ < window_) {
    changed_.signal();
  }
}

void bulk_sender::wait_for_allowance(clock::time_point now)
{
  if (in_flight_ >= window_) {
    if (!changed_.wait_until(lock_, now + COME_BACK_WAIT)) {
      in_flight_ = 0;
    }
    return;
  }
  const auto batch = static_cast<int64_t>(std::min({waiting_.count(), BATCH_MAX / 2, window_ / 2}));
  changed_.wait_until(lock_, paid_until_ + cost_ * batch);
}

void bulk_sender::send_batch(size_t count)
{
  message_list batch;
  for (size_t i = 0; i < count && !waiting_.empty(); ++i) {
    charge(*waiting_.first());
    batch.push_back(waiting_.pop_front());
  }
  sending_batch_ = true;
  lock_.unlock();
  const bool busy = out_.send_bulk(batch) == send_result::busy;
  lock_.lock();
  in_flight_ -= std::min(in_flight_, batch.count());
  if (!stopping_) {
    waiting_.prepend(batch);
  }
  sending_batch_ = false;
  batch_ended_.signal_all();
  if (busy) {
    lock_.unlock();
    out_.wait_for_room(10);
    lock_.lock();
  }
}

void bulk_sender::run()
{
  const lock_scope lock(lock_);
  while (!stopping_) {
    const auto now = clock::now();
    if (waiting_.empty() || removing_ > 0) {
      changed_.wait(lock_);
    } else if (const size_t count = std::min(allowance(now), BATCH_MAX); count > 0) {
      send_batch(count);
    } else {
      wait_for_allowance(now);
    }
  }
}

}  // namespace platform
