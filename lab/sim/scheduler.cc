#include "scheduler.h"

#include <algorithm>

namespace sim
{

namespace
{

constexpr uint64_t PCT_STEPS = 400'000;  // change points are drawn among so many steps
constexpr int64_t PRIORITIES = 1 << 20;

}  // namespace

scheduler::scheduler(uint64_t seed, policy how, uint32_t cores, event_log &log)
    : log_(log), draw_(seed, 1), policy_(how), switch_once_in_(1u << draw_.between(1, 5)), cores_(cores)
{
  const int64_t changes = draw_.between(3, 40);
  for (int64_t i = 0; how == policy::pct && i < changes; ++i) {
    change_at_.push_back(draw_.below(PCT_STEPS));
  }
  std::sort(change_at_.begin(), change_at_.end(), std::greater<>());
}

void scheduler::adopt_main()
{
  auto one = std::make_unique<thread>();
  one->number = 1;
  one->name = "world";
  one->priority_ = 2 * PRIORITIES;
  running_ = one.get();
  make_ready(*one);
  threads_.push_back(std::move(one));
}

thread &scheduler::create(process *owner, const std::string &name, std::function<void()> body)
{
  auto made = std::make_unique<thread>();
  thread &one = *made;
  one.number = static_cast<uint32_t>(threads_.size() + 1);
  one.owner = owner;
  one.home_ = this;
  one.name = name;
  one.body = std::move(body);
  one.priority_ = draw_.between(1, PRIORITIES);
  threads_.push_back(std::move(made));

  if (!one.turn_.create(thread_main, &one)) {
    on_dead_end("the machine gives no thread");
  }
  make_ready(one);
  return one;
}

void scheduler::thread_main(void *argument)
{
  auto *const one = static_cast<thread *>(argument);
  one->body();
  one->home_->end_self();
}

void scheduler::end_self()
{
  thread &one = *running_;
  one.has_ended = true;
  log_.step(now_us_, one.owner != nullptr ? one.owner->node : 0, one.number, "ended");
  wake_all(nullptr, &one);
  leave_ready(one);
  one.state_ = thread::state::gone;
  thread &next = next_after_block();
  ++hand_overs_;
  running_ = &next;
  bring_storage(next);
  one.turn_.end(next.turn_);
}

size_t scheduler::living(const process &owner, const char *but) const
{
  return static_cast<size_t>(std::count_if(threads_.begin(), threads_.end(), [&](const std::unique_ptr<thread> &one) {
    return one->owner == &owner && !one->has_ended && !one->name.starts_with(but);
  }));
}

void scheduler::make_ready(thread &one)
{
  if (one.state_ == thread::state::blocked) {
    std::erase(blocked_, &one);
  }
  one.state_ = thread::state::ready;
  one.waits_for_ = nullptr;
  one.mutex_owner_ = nullptr;
  one.ready_at_ = ready_.size();
  ready_.push_back(&one);
}

void scheduler::leave_ready(thread &one)
{
  ready_[one.ready_at_] = ready_.back();
  ready_[one.ready_at_]->ready_at_ = one.ready_at_;
  ready_.pop_back();
}

void scheduler::fire_due()
{
  while (!deadlines_.empty() && deadlines_.top().when_us <= now_us_) {
    const deadline due = deadlines_.top();
    deadlines_.pop();
    if (due.who == nullptr) {
      const std::function<void()> action = std::move(actions_[due.action]);
      actions_[due.action] = nullptr;
      free_actions_.push_back(due.action);
      action();
    } else if (due.who->state_ == thread::state::blocked && due.who->wait_number_ == due.wait_number) {
      due.who->is_timed_out_ = true;
      make_ready(*due.who);
    }
  }
}

void scheduler::at(int64_t when_us, std::function<void()> action)
{
  size_t index = actions_.size();
  if (free_actions_.empty()) {
    actions_.push_back(std::move(action));
  } else {
    index = free_actions_.back();
    free_actions_.pop_back();
    actions_[index] = std::move(action);
  }
  deadlines_.push(
      {.when_us = std::max(when_us, now_us_), .order = ++order_, .who = nullptr, .wait_number = 0, .action = index});
}

void scheduler::change_points()
{
  while (!change_at_.empty() && change_at_.back() <= steps_) {
    change_at_.pop_back();
    if (running_->owner != nullptr) {
      running_->priority_ = --lowest_priority_;
    }
  }
}

thread *scheduler::choose_uniform()
{
  // Threads that are held, or whose process is paused, stay among the ready ones: a few tries, then a walk from a drawn
  // place.
  for (int i = 0; i < 4; ++i) {
    thread *const one = ready_[draw_.below(ready_.size())];
    if (runs(*one)) {
      return one;
    }
  }
  const size_t from = draw_.below(ready_.size());
  for (size_t i = 0; i < ready_.size(); ++i) {
    thread *const one = ready_[(from + i) % ready_.size()];
    if (runs(*one)) {
      return one;
    }
  }
  return nullptr;
}

thread *scheduler::choose_by_priority()
{
  thread *best = nullptr;
  for (thread *const one : ready_) {
    if (runs(*one) && (best == nullptr || one->priority_ > best->priority_)) {
      best = one;
    }
  }
  return best;
}

thread *scheduler::choose(bool self_may)
{
  if (ready_.empty()) {
    return nullptr;
  }
  if (policy_ == policy::pct) {
    return choose_by_priority();
  }
  return self_may && !draw_.once_in(switch_once_in_) ? running_ : choose_uniform();
}

// With one kernel thread for all, the library's thread-local storage is of whoever runs.
void scheduler::keep_storage(thread &one)
{
  if (shares_kernel_thread && one.owner != nullptr && one.owner->storage != nullptr) {
    one.storage_.assign(one.owner->storage, one.owner->storage + one.owner->first_storage.size());
  }
}

void scheduler::bring_storage(const thread &one)
{
  if (shares_kernel_thread && one.owner != nullptr && one.owner->storage != nullptr) {
    const std::vector<uint8_t> &from = one.storage_.empty() ? one.owner->first_storage : one.storage_;
    std::copy(from.begin(), from.end(), one.owner->storage);
  }
}

void scheduler::hand_to(thread &next)
{
  thread &self = *running_;
  if (&next == &self) {
    return;
  }
  ++hand_overs_;
  running_ = &next;
  keep_storage(self);
  bring_storage(next);
  self.turn_.give(next.turn_);
}

thread &scheduler::next_after_block()
{
  for (;;) {
    if (thread *const next = choose(false)) {
      return *next;
    }
    if (deadlines_.empty()) {
      on_dead_end("nothing can happen any more: all threads wait, and no deadline is left");
    }
    now_us_ = std::max(now_us_, deadlines_.top().when_us);
    fire_due();
  }
}

void scheduler::step(const char *what, uint64_t object)
{
  ++steps_;
  now_us_ += steps_ % cores_ == 0 ? 1 : 0;
  thread &self = *running_;
  log_.step(now_us_, self.owner != nullptr ? self.owner->node : 0, self.number, what, object);
  fire_due();
  change_points();
  if (!runs(self)) {
    hand_to(next_after_block());
    return;
  }
  if (thread *const next = choose(true)) {
    hand_to(*next);
  }
}

bool scheduler::wait(const void *address, int64_t deadline_us, const char *what)
{
  ++steps_;
  thread &self = *running_;
  log_.step(now_us_, self.owner != nullptr ? self.owner->node : 0, self.number, what);
  if (self.state_ == thread::state::ready) {  // a killed one stays where it is
    leave_ready(self);
    self.state_ = thread::state::blocked;
    self.waits_for_ = address;
    self.is_timed_out_ = false;
    ++self.wait_number_;
    blocked_.push_back(&self);
    if (deadline_us != NEVER) {
      deadlines_.push({.when_us = std::max(deadline_us, now_us_),
                       .order = ++order_,
                       .who = &self,
                       .wait_number = self.wait_number_,
                       .action = 0});
    }
  }
  fire_due();
  hand_to(next_after_block());
  return !self.is_timed_out_;
}

bool scheduler::wait_for_owner(const void *mutex, uint32_t owner, int64_t deadline_us)
{
  thread *const holder = find(owner);
  if (deadline_us == NEVER) {
    for (const thread *at = holder; at != nullptr; at = at->mutex_owner_) {
      if (at == running_) {
        on_dead_end("deadlock: thread " + std::to_string(running_->number) + " (" + running_->name +
                    ") waits for a mutex of thread " + std::to_string(holder->number) + " (" + holder->name +
                    "), which waits for it");
      }
    }
    running_->mutex_owner_ = holder;
  }
  return wait(mutex, deadline_us, "wait-mutex");
}

void scheduler::wake_all(const process *owner, const void *address)
{
  for (size_t i = 0; i < blocked_.size();) {
    thread &one = *blocked_[i];
    if (one.waits_for_ == address && (owner == nullptr || one.owner == owner)) {
      make_ready(one);
    } else {
      ++i;
    }
  }
}

bool scheduler::wake_one(const process *owner, const void *address)
{
  thread *chosen = nullptr;
  uint64_t seen = 0;
  for (thread *const one : blocked_) {
    if (one->waits_for_ == address && one->owner == owner && draw_.below(++seen) == 0) {
      chosen = one;
    }
  }
  if (chosen != nullptr) {
    make_ready(*chosen);
  }
  return chosen != nullptr;
}

void scheduler::kill(process &owner)
{
  owner.is_killed = true;
  for (const std::unique_ptr<thread> &one : threads_) {
    if (one->owner != &owner || one->state_ == thread::state::gone) {
      continue;
    }
    if (one->state_ == thread::state::ready) {
      leave_ready(*one);
    } else {
      std::erase(blocked_, one.get());
    }
    one->state_ = thread::state::gone;
  }
}

void scheduler::pause(process &owner)
{
  owner.is_paused = true;
}

void scheduler::resume(process &owner)
{
  owner.is_paused = false;
}

thread *scheduler::hold_one(const process &owner, const std::string &but, draw &choices)
{
  std::vector<thread *> living;
  for (const std::unique_ptr<thread> &one : threads_) {
    if (one->owner == &owner && !one->has_ended && !one->is_held_ && (but.empty() || !one->name.starts_with(but))) {
      living.push_back(one.get());
    }
  }
  if (living.empty()) {
    return nullptr;
  }
  thread *const chosen = choices.one_of(living);
  chosen->is_held_ = true;
  return chosen;
}

}  // namespace sim
