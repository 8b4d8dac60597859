#include "cluster/hello_service.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform.h"

namespace kesh
{

namespace
{

// Far more than all nodes send in a second.
constexpr size_t INBOX_MAX = 256;

using platform::log_level;
using platform::log_line;

int64_t now_ms()
{
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

peer_view view_of(const heard_hello &heard, int64_t now)
{
  peer_view view;
  view.last = heard.last;
  view.age_ms = static_cast<uint32_t>(std::clamp<int64_t>(now - heard.heard_ms, 0, UINT32_MAX));
  return view;
}

agreement_verdict verdict_in(const cluster_view &view, uint32_t node)
{
  for (const peer_view &one : view.peers) {
    if (one.last.node == node) {
      return one.verdict;
    }
  }
  return {};
}

/// Logs what people must hear of. Returns whether anything that `changed` is called for has changed.
bool say_changes(const cluster_view &before, const cluster_view &now)
{
  bool has_changed = before.barred.has_value() != now.barred.has_value() ||
                     before.disk_went_back != now.disk_went_back || before.echoes != now.echoes ||
                     before.has_double != now.has_double || before.has_lasting_double != now.has_lasting_double;
  for (const peer_view &one : now.peers) {
    const agreement_verdict was = verdict_in(before, one.last.node);
    has_changed |= was.kind != one.verdict.kind;
    if (was.kind != one.verdict.kind && one.verdict.kind == agreement_kind::diverged) {
      log_line(log_level::error, "cluster: DIVERGED: node " + std::to_string(one.last.node) +
                                     " has another history than this node, seen at payload " +
                                     std::to_string(one.verdict.n));
    }
  }
  if (now.barred && !before.barred) {
    log_line(log_level::error, "cluster: a quorum of the nodes has another history than this node, seen at payload " +
                                   std::to_string(now.barred->n) + ": it may not lead any more");
  } else if (before.barred && !now.barred) {
    log_line(log_level::info, "cluster: stores were replaced: this node may lead again");
  }
  if (now.disk_went_back && !before.disk_went_back) {
    log_line(log_level::error, "cluster: THE DISK WENT BACK: node " + std::to_string(now.disk_went_back->told_by) +
                                   " remembers decision " + std::to_string(now.disk_went_back->decision) +
                                   " of this node, which began with an earlier one");
  }
  if (now.own_number_count != 0 && before.own_number_count == 0) {
    log_line(log_level::error, "cluster: another daemon has the number of this node");
  }
  return has_changed;
}

}  // namespace

hello_service::hello_service(hello_settings settings, hello_functions functions)
    : settings_(std::move(settings)), functions_(std::move(functions)), peers_(settings_),
      agreement_(settings_.node_count, functions_.own_hash)
{
}

void hello_service::start()
{
  {
    const platform::lock_scope lock(lock_);
    stopping_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void hello_service::stop()
{
  {
    const platform::lock_scope lock(lock_);
    stopping_ = true;
    changed_.signal_all();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

void hello_service::receive(std::string_view bytes) noexcept
{
  std::optional<hello> said;
  try {
    said = hello_decode(bytes);
  } catch (const std::exception &) {
    // No memory: it counts as dropped.
  }
  const platform::lock_scope lock(lock_);
  if (!said || inbox_.size() >= INBOX_MAX) {
    ++dropped_;
    return;
  }
  try {
    inbox_.push_back({std::move(*said), now_ms()});
    changed_.signal();
  } catch (const std::exception &) {
    ++dropped_;
  }
}

cluster_view hello_service::view()
{
  const platform::lock_scope lock(lock_);
  cluster_view now = view_;
  const auto passed_ms = static_cast<uint32_t>(std::clamp<int64_t>(now_ms() - viewed_ms_, 0, UINT32_MAX));
  const auto grow_older = [&](peer_view &one) { one.age_ms += std::min(passed_ms, UINT32_MAX - one.age_ms); };
  std::for_each(now.peers.begin(), now.peers.end(), grow_older);
  if (now.stranger) {
    grow_older(*now.stranger);
  }
  return now;
}

uint64_t hello_service::dropped()
{
  const platform::lock_scope lock(lock_);
  return dropped_;
}

void hello_service::run()
{
  clock::time_point next = clock::now();
  for (;;) {
    std::vector<arrival> arrived;
    {
      const platform::lock_scope lock(lock_);
      while (!stopping_ && inbox_.empty() && clock::now() < next) {
        changed_.wait_until(lock_, next);
      }
      if (stopping_) {
        return;
      }
      arrived.swap(inbox_);
    }
    const bool is_due = clock::now() >= next;
    if (is_due) {
      next = clock::now() + settings_.period;
    }
    try {
      work(arrived, is_due);
      has_failed_ = has_failed_ && !is_due;
    } catch (const std::exception &failure) {
      if (!has_failed_) {
        log_line(log_level::error, std::string("cluster: no hello, or no judgement: ") + failure.what());
      }
      has_failed_ = true;
    }
  }
}

void hello_service::work(const std::vector<arrival> &arrived, bool is_due)
{
  bool is_new_session = false;
  for (const arrival &one : arrived) {
    const heard_hello *const before = peers_.last_of(one.said.node);
    const bool begins = before == nullptr || before->last.session != one.said.session;
    if (peers_.heard(one.said, one.heard_ms) == hello_kind::member) {
      is_new_session |= begins;
      agreement_.heard(one.said.node, one.said.position);
      if (functions_.heard && peers_.is_echo(one.said)) {
        functions_.heard(one.said);
      }
    }
  }
  // Who begins waits for an echo before it votes. It trusts the first top that it is told, so that one is of now.
  const bool says_hello = is_due || (is_new_session && facts_);
  if (says_hello) {
    facts_ = functions_.facts();
    agreement_.own(facts_->position);
  }
  judge();
  if (says_hello) {
    say_hello();
  }
}

void hello_service::say_hello()
{
  hello said;
  said.cluster = settings_.cluster;
  said.build = settings_.build;
  said.node_count = settings_.node_count;
  said.state_max = settings_.state_max;
  said.node = settings_.node;
  said.session = settings_.session;
  said.number = ++number_;
  said.role = facts_->role;
  said.stands = facts_->stands;
  said.decision = facts_->decision;
  said.top = facts_->top;
  said.position = facts_->position;
  said.handled = facts_->handled;
  said.could_lead = facts_->could_lead;
  said.ids = facts_->ids;
  said.reason = facts_->reason;
  said.heard = peers_.lines(now_ms());
  functions_.send(hello_encode(std::move(said)));
}

void hello_service::judge()
{
  if (facts_ && facts_->decision_at_start && !disk_went_back_) {
    disk_went_back_ = peers_.disk_went_back(*facts_->decision_at_start);
  }
  const int64_t now = now_ms();
  const cluster_view view = make_view(now);
  cluster_view before;
  {
    const platform::lock_scope lock(lock_);
    before = std::exchange(view_, view);
    viewed_ms_ = now;
  }
  if (say_changes(before, view) && functions_.changed) {
    functions_.changed(view);
  }
}

cluster_view hello_service::make_view(int64_t now) const
{
  cluster_view view;
  for (uint32_t node = 1; node <= HELLO_NODES_MAX; ++node) {
    if (const heard_hello *heard = peers_.last_of(node)) {
      view.peers.push_back(view_of(*heard, now));
      view.peers.back().echo_age_ms = peers_.echo_age_ms(heard->last);
      view.peers.back().is_member = heard->last.cluster.generation == settings_.cluster.generation;
      view.peers.back().verdict = agreement_.of(node);
    }
  }
  if (peers_.stranger()) {
    view.stranger = view_of(*peers_.stranger(), now);
  }
  view.own_number_count = peers_.own_number_count();
  view.has_double = peers_.has_double(now);
  view.has_lasting_double = peers_.has_lasting_double(now);
  view.echoes = peers_.echo_count();
  view.barred = agreement_.barred();
  view.disk_went_back = disk_went_back_;
  return view;
}

}  // namespace kesh
