#include "cluster/cluster_link.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <system_error>

#include "cluster/configured_cluster.h"
#include "message.h"
#include "vx_host.h"

namespace kesh
{

namespace
{

using platform::lock_scope;
using platform::log_level;
using platform::log_line;

// Each try restarts the library.
constexpr std::chrono::seconds RAISE_AGAIN{30};
// A new log makes room for a moment. The lead must not go to and fro with each.
constexpr int64_t ROOM_LASTS_MS = 60000;

// Hooks have no argument for the host. Set before the hook is registered, and reset when messaging has stopped.
std::atomic<cluster_link *> hooked = nullptr;

uint32_t random_number()
{
  uint32_t number = 0;
  if (getrandom(&number, sizeof number, 0) != sizeof number) {
    number = static_cast<uint32_t>(std::chrono::system_clock::now().time_since_epoch().count());
  }
  return number;
}

hello_settings settings_of(const settings &from, std::chrono::milliseconds period)
{
  return {.cluster = configured_cluster(from),
          .build = vx_firmware_dova_build_nr,
          .node_count = from.node_count,
          .node = from.node_id,
          .session = random_number(),
          .period = period,
          .state_max = from.state_max};
}

bool is_usable(const hello_settings &of, uint64_t cluster_id)
{
  return cluster_id != 0 && of.node_count >= 1 && of.node_count <= HELLO_NODES_MAX && of.node >= 1 &&
         of.node <= of.node_count;
}

int64_t now_ms()
{
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// Each the highest of both.
message_ids merged(message_ids ids, const message_ids &more)
{
  std::transform(ids.begin(), ids.end(), more.begin(), ids.begin(),
                 [](uint32_t a, uint32_t b) { return std::max(a, b); });
  return ids;
}

}  // namespace

cluster_link::cluster_link(const settings &configured, store &of, link_functions functions, link_places places)
    : store_(of), functions_(std::move(functions)), places_(std::move(places)), cluster_id_(cluster_number(configured)),
      hello_settings_(settings_of(configured, places_.period)), is_configured_(is_usable(hello_settings_, cluster_id_)),
      standing_file_(places_.records, hello_settings_.cluster), filter_(cluster_id_, vx_firmware_dova_build_nr),
      records_(places_.records), look_(of), newcomer_(hello_settings_.node_count, hello_settings_.node),
      channel_(cluster_id_, hello_settings_.build, hello_settings_.node),
      probes_(hello_settings_.node, hello_settings_.node_count,
              [this](uint32_t node, std::string_view bytes) {
                return channel_.send(node, platform::UNFRAGMENTED_KEY, bytes);
              }),
      hello_(hello_settings_, make_functions())
{
}

cluster_link::~cluster_link()
{
  stop();
  platform::messaging_set_filter(nullptr);
  platform::messaging_expect(0, 0);
  hooked = nullptr;
}

hello_functions cluster_link::make_functions()
{
  return {.facts = [this] { return gather(); },
          .heard = [this](const hello &said) { note_hello(said); },
          .own_hash = [this](const told_position &in, uint64_t n) { return look_.hash_at(in, n); },
          .send =
              [this](std::string_view bytes) {
                if (places_.send) {
                  places_.send(bytes);
                } else {
                  channel_.send(host_channel::TO_ALL, 0, bytes);
                }
              },
          .changed = [this](const cluster_view &view) { judged(view); }};
}

void cluster_link::start()
{
  if (!is_configured_) {
    return;
  }
  std::string error;
  if (!look_for_past(error)) {
    log_line(log_level::error, "cluster: " + error);
  }
  tell_submission();
  {
    const lock_scope scope(lock_);
    is_stopping_ = false;
  }
  is_used_ = true;
  changed();
  worker_ = std::thread([this] { work(); });
  hello_.start();
  if (!places_.send) {
    hooked = this;
    platform::messaging_set_filter(&filter_);
    platform::messaging_expect(cluster_id_, vx_firmware_dova_build_nr);
    vx_msg_register_recv_hook(receive_hook, host_channel::CHANNEL);
  }
}

void cluster_link::stop()
{
  if (!std::exchange(is_used_, false)) {
    return;
  }
  vx_msg_unregister_recv_hook(receive_hook);
  log_text line;
  {
    const lock_scope scope(lock_);
    is_stopping_ = true;
    is_started_ = false;
    wake_worker_.signal_all();
    line = decide();
  }
  say(line);
  hello_.stop();
  if (worker_.joinable()) {
    worker_.join();
  }
}

bool cluster_link::before_library_start(std::string &error)
{
  if (!is_configured_) {
    return true;
  }
  {
    const lock_scope scope(lock_);
    is_started_ = false;
    if (!step_down(places_.node_state, error)) {
      return false;
    }
  }
  const bool is_settled = look_for_past(error);
  tell_submission();
  if (is_settled) {
    const lock_scope scope(lock_);
    error = stays_out();
    return error.empty();
  }
  return false;
}

void cluster_link::library_started()
{
  log_text line;
  {
    const lock_scope scope(lock_);
    is_started_ = has_run_ = true;
    line = decide();
  }
  say(line);
}

void cluster_link::library_stopped()
{
  log_text line;
  {
    const lock_scope scope(lock_);
    is_started_ = false;
    line = decide();
  }
  say(line);
}

void cluster_link::changed() noexcept
{
  try {
    uint64_t look;
    {
      const lock_scope scope(lock_);
      look = ++looks_;
    }
    const bool is_complete = store_.position().incomplete.empty();
    log_text line;
    {
      const lock_scope scope(lock_);
      is_complete_ = look == looks_ ? is_complete : is_complete_;
      line = decide();
    }
    say(line);
  } catch (const std::exception &) {
    // No memory: the hello thread decides within a second.
  }
}

void cluster_link::vrrp_changed()
{
  log_text line;
  {
    const lock_scope scope(lock_);
    line = decide();
  }
  say(line);
}

lead_answer cluster_link::eligible()
{
  const lock_scope scope(lock_);
  return is_eligible(facts_now());
}

lead_answer cluster_link::ready()
{
  const lead_answer submits = may_submit();
  if (!is_configured_) {
    return submits;
  }
  const lock_scope scope(lock_);
  const bool is_ordered = facts_ && ordering_.obstacles.empty();
  return !is_ordered ? lead_answer{false, facts_ ? obstacles_text(ordering_) : "the daemon has just begun"} : submits;
}

lead_answer cluster_link::may_lead()
{
  const lock_scope scope(lock_);
  return kesh::may_lead(facts_now());
}

lead_answer cluster_link::may_submit()
{
  const lock_scope scope(lock_);
  std::string reason = is_configured_ ? newcomer_.why_no_submission() : "no cluster is configured";
  const bool yes = reason.empty();
  return {yes, std::move(reason)};
}

bool cluster_link::is_reformed()
{
  const lock_scope scope(lock_);
  return newcomer_.stands() == standing::reformed;
}

cluster_view cluster_link::view()
{
  return hello_.view();
}

void cluster_link::receive(std::string_view bytes) noexcept
{
  hello_.receive(bytes);
}

void cluster_link::receive_hook(void *msg)
{
  cluster_link *const link = hooked;
  if (link == nullptr) {
    return;
  }
  const host_message came = host_message_of(msg);
  if (is_probe(came.bytes)) {
    link->probes_.receive(came.sender, came.bytes);
  } else {
    link->receive(came.bytes);
  }
}

void cluster_link::say(const log_text &line)
{
  if (line) {
    log_line(line->first, line->second);
  }
}

std::string cluster_link::stays_out() const
{
  if (has_disk_gone_back_) {
    return "the disk of this node has gone back to an earlier state, so it has forgotten votes: empty it, then "
           "configure it anew";
  }
  return has_lasting_double_ ? "another daemon has the number of this node: stop one of them" : "";
}

bool cluster_link::may_vote() const
{
  return newcomer_.stands() != standing::is_new && stays_out().empty() && is_echoed();
}

lead_facts cluster_link::facts_now() const
{
  std::string not_yet = newcomer_.why_no_lead();
  if (not_yet.empty() && !is_echoed()) {
    not_yet = "too few of the others have said hello to it since it began";
  }
  return {.vrrp = vrrp_state_of(state_word_read(places_.vrrp_state)).value_or(vrrp_state::unknown),
          .is_started = is_started_,
          .is_complete = is_complete_,
          .is_barred = is_barred_,
          .stays_out = stays_out(),
          .not_yet = std::move(not_yet),
          .has_room = now_ms() >= has_room_from_ms_,
          .substitute = substitute_};
}

cluster_link::log_text cluster_link::decide()
{
  if (!is_configured_) {
    return std::nullopt;
  }
  filter_.let_votes_pass(may_vote());
  const lead_answer answer = kesh::may_lead(facts_now());
  std::string error;
  log_level level = log_level::debug;
  std::string text = answer.yes ? "cluster: this node may lead" : "cluster: this node may not lead: " + answer.reason;
  const bool is_written =
      answer.yes ? state_word_write(places_.node_state, "MASTER", error) : step_down(places_.node_state, error);
  if (!is_written) {
    level = log_level::error;
    text = "cluster: the node state cannot be written: " + error;
  }
  if (written_ == text) {
    return std::nullopt;
  }
  const bool is_plain = newcomer_.stands() == standing::member && answer.yes == was_master_;
  if (level == log_level::debug && !is_plain) {
    level = log_level::info;
  }
  was_master_ = answer.yes;
  written_ = text;
  return std::pair(level, std::move(text));
}

void cluster_link::tell_submission()
{
  {
    const lock_scope scope(lock_);
    const bool may_submit = newcomer_.why_no_submission().empty();
    if (may_submit == std::exchange(told_may_submit_, may_submit)) {
      return;
    }
  }
  if (functions_.may_submit_changed) {
    functions_.may_submit_changed();
  }
}

bool cluster_link::look_for_past(std::string &error)
{
  const lock_scope standing_scope(standing_lock_);
  const own_records records = records_reader(places_.records).read();
  const auto kept = standing_file_.read(error);
  if (!error.empty()) {
    return false;
  }
  const standing found = standing_at_start(kept ? std::optional(kept->stands) : std::nullopt, records.has_past);
  const bool becomes_new = found == standing::is_new && !kept;
  kept_ = kept.value_or(kept_standing{found, {}});
  if (becomes_new && !standing_file_.write(kept_, error)) {
    return false;
  }
  log_text line;
  {
    const lock_scope scope(lock_);
    const bool is_known = records.knows_decision && found != standing::is_new;
    if (is_known && !decision_at_start_ && !has_run_) {
      decision_at_start_ = records.decision;
    }
    has_disk_gone_back_ |= is_known && facts_ && records.decision < facts_->decision;
    newcomer_.begin(found);
    filter_.hold_missing(kept_.held);
    line = decide();
  }
  say(line);
  if (becomes_new) {
    log_line(log_level::warning, "cluster: this node has no past: it does not vote, lead or submit before it has heard "
                                 "all others and knows what they know");
  }
  return true;
}

// ---- Hello thread ----

void cluster_link::look_for_ids(const told_position &now, std::string &reason)
{
  try {
    look_.look_for_ids(now);
  } catch (const store_failure &failure) {
    reason = failure.what();
  }
}

own_facts cluster_link::gather()
{
  own_facts now;
  now.role = functions_.role();
  const own_records records = records_.read();
  now.position = look_.position();
  look_for_ids(now.position, now.reason);
  const auto in_store = look_.ids();
  message_ids known = merged(records.ids, in_store.value_or(message_ids{}));
  if (records.knows_decision) {
    told_decision_ = records.decision;
  }
  if (in_store) {
    advance_newcomer(records, known, is_reformed() ? obstacle_to_reform(now.position) : std::string());
    tell_submission();
  }
  changed();
  {
    const lock_scope scope(lock_);
    now.stands = newcomer_.stands();
  }
  const bool is_new = now.stands == standing::is_new;
  now.decision = told_decision_;
  // What a new node was asked for it did not answer.
  now.top = std::max({now.decision, records.register_max, is_new ? 0 : filter_.watch().greatest()});
  now.handled = records.handled;
  uint32_t &own_id = known[hello_settings_.node - 1];
  own_id = std::max(own_id, records.msg_id);
  // Without them nobody takes the top for this node's word.
  now.ids = in_store && records.knows_top ? std::optional(known) : std::nullopt;
  const ordering_facts known_now = facts_of_ordering(now);
  const ordering found = ordering_of(known_now);
  note_room(known_now.no_room.empty(), hello_.view());
  now.reason = now.reason.empty() ? records.fault : now.reason;
  now.reason = now.reason.empty() ? obstacles_text(found) : now.reason;
  const lock_scope scope(lock_);
  note_ordering(found);
  now.could_lead = could_lead(facts_now());
  now.decision_at_start = decision_at_start_;
  facts_ = now;
  return now;
}

ordering_facts cluster_link::facts_of_ordering(const own_facts &now)
{
  const cluster_view seen = hello_.view();
  ordering_facts known{.node = hello_settings_.node,
                       .node_count = hello_settings_.node_count,
                       .role = now.role,
                       .stands = now.stands,
                       .isolated = functions_.isolated ? functions_.isolated() : "",
                       .stays_out = {},
                       .no_network = platform::messaging_network_fault(),
                       .no_room = functions_.no_room ? functions_.no_room() : "",
                       .not_yet = {},
                       .is_complete = now.position.complete,
                       .is_barred = seen.barred.has_value(),
                       .decision = now.decision,
                       .peers = {},
                       .oldest_wait_s = functions_.oldest_wait_s ? functions_.oldest_wait_s() : 0};
  for (const peer_view &one : seen.peers) {
    known.peers.push_back(ordering_peer_of(one));
  }
  if (seen.stranger) {
    known.peers.push_back(ordering_peer_of(*seen.stranger));
  }
  const lock_scope scope(lock_);
  const lead_facts own = facts_now();
  known.stays_out = own.stays_out;
  known.not_yet = own.not_yet;
  return known;
}

void cluster_link::note_room(bool has_room, const cluster_view &seen)
{
  const auto other = std::find_if(seen.peers.begin(), seen.peers.end(), [this](const peer_view &one) {
    return one.age_ms <= LIVE_MS && one.last.could_lead && difference_of(one.last, hello_settings_) == difference::none;
  });
  const lock_scope scope(lock_);
  has_room_from_ms_ = has_room ? has_room_from_ms_ : now_ms() + ROOM_LASTS_MS;
  substitute_ = other == seen.peers.end() ? 0 : other->last.node;
}

/// What the library of this node makes of the other's messages.
ordering_peer cluster_link::ordering_peer_of(const peer_view &one) const
{
  const hello &said = one.last;
  return {said.node, one.age_ms, said.role, said.stands, said.decision, difference_of(said, hello_settings_)};
}

void cluster_link::note_ordering(const ordering &found)
{
  const int64_t now = now_ms();
  if (judged_ms_ != 0 && !ordering_.obstacles.empty()) {
    not_ordering_ms_ += now - judged_ms_;
  }
  judged_ms_ = now;
  ordering_ = found;
  if (found.leader != 0) {
    leader_changes_ += last_leader_ != 0 && last_leader_ != found.leader ? 1 : 0;
    last_leader_ = found.leader;
  }
}

std::string cluster_link::ordering_sentence()
{
  if (!is_configured_) {
    return "not ordering: no cluster is configured";
  }
  const lock_scope scope(lock_);
  return facts_ ? ordering_text(ordering_) : "not ordering: the daemon has just begun";
}

void cluster_link::note_hello(const hello &said)
{
  const lock_scope scope(lock_);
  newcomer_.heard(said);
}

std::string cluster_link::obstacle_to_reform(const told_position &own)
{
  reform_node node{.count = hello_settings_.node_count, .number = hello_settings_.node, .without = 0, .position = own};
  {
    const lock_scope standing_scope(standing_lock_);
    node.without = kept_.without;
  }
  std::vector<reform_voice> voices;
  for (const peer_view &one : hello_.view().peers) {
    voices.push_back({.node = one.last.node,
                      .is_member = one.is_member,
                      .decision = one.last.decision,
                      .is_live = one.age_ms <= LIVE_MS,
                      .stands = one.last.stands,
                      .said = one.last.position});
  }
  return reform_obstacle(node, voices, [&](uint64_t n) { return look_.hash_at(own, n); });
}

void cluster_link::advance_newcomer(const own_records &records, const message_ids &known, std::string obstacle)
{
  const lock_scope standing_scope(standing_lock_);
  newcomer::step next;
  {
    const lock_scope scope(lock_);
    next = newcomer_.advance({.is_running = is_started_,
                              .handled = records.handled,
                              .decision = records.decision,
                              .msg_id = records.msg_id,
                              .known_msg_id = known[hello_settings_.node - 1],
                              .obstacle = std::move(obstacle),
                              .has_double = has_double_});
    if (next.msg_id && !msg_id_wanted_) {
      msg_id_wanted_ = next.msg_id;
      wake_worker_.signal_all();
    }
  }
  if (!next.becomes) {
    return;
  }
  const bool was_new = kept_.stands == standing::is_new;
  kept_standing now = kept_;
  now.stands = *next.becomes;
  now.held = was_new ? next.held : kept_.held;
  std::string error;
  if (!standing_file_.write(now, error)) {
    log_line(log_level::error, "cluster: this node cannot join: " + error);
    return;
  }
  kept_ = now;
  log_text line;
  {
    const lock_scope scope(lock_);
    newcomer_.begin(now.stands);
    filter_.hold_missing(now.held);
    line = decide();
  }
  say(line);
  if (was_new) {
    log_line(log_level::info, "cluster: this node has joined: it votes and submits from now on");
  }
}

void cluster_link::judged(const cluster_view &view)
{
  log_text line;
  std::string must_stop;
  {
    const lock_scope scope(lock_);
    is_barred_ = view.barred.has_value();
    has_double_ = view.has_double;
    has_lasting_double_ = view.has_lasting_double;
    has_disk_gone_back_ |= view.disk_went_back.has_value();
    echoes_ = view.echoes;
    must_stop = stays_out();
    must_stop = std::exchange(told_out_, must_stop) == must_stop ? "" : must_stop;
    line = decide();
  }
  say(line);
  if (!must_stop.empty()) {
    functions_.stop_protocol(must_stop);
  }
}

// ---- Work thread ----

bool cluster_link::is_stopping()
{
  const lock_scope scope(lock_);
  return is_stopping_;
}

void cluster_link::work()
{
  no_op_rule rule;
  std::chrono::steady_clock::time_point raise_not_before{};
  for (;;) {
    std::optional<uint32_t> msg_id;
    {
      const lock_scope scope(lock_);
      const auto next = std::chrono::steady_clock::now() + places_.period;
      while (!is_stopping_ && !msg_id_wanted_ && std::chrono::steady_clock::now() < next) {
        wake_worker_.wait_until(lock_, next);
      }
      if (is_stopping_) {
        return;
      }
      msg_id = msg_id_wanted_;
    }
    try {
      if (msg_id) {
        raise_msg_id(*msg_id, raise_not_before);
      }
      order_no_ops(rule);
    } catch (const std::exception &failure) {
      log_line(log_level::error, std::string("cluster: no no-op, or no message id: ") + failure.what());
    }
    if (msg_id) {
      // Only now: the hello thread asks for it once more, if it is still needed.
      const lock_scope scope(lock_);
      msg_id_wanted_.reset();
    }
  }
}

void cluster_link::raise_msg_id(uint32_t to, std::chrono::steady_clock::time_point &not_before)
{
  if (std::chrono::steady_clock::now() < not_before) {
    return;
  }
  std::string error;
  const auto write = [&](std::string &why) { return records_reader(places_.records).write_msg_id(to, why); };
  if (functions_.restart_protocol(write, error)) {
    log_line(log_level::info, "cluster: message ids of this node begin above " + std::to_string(to));
  } else {
    log_line(log_level::error, "cluster: message ids cannot be raised above those that were used: " + error);
    not_before = std::chrono::steady_clock::now() + RAISE_AGAIN;
  }
}

void cluster_link::order_no_ops(no_op_rule &rule)
{
  while (!is_stopping() && functions_.role() == node_role::leader) {
    std::optional<own_facts> own;
    {
      const lock_scope scope(lock_);
      own = facts_;
    }
    if (!own || !rule.wants(hello_.view(), *own, now_ms()) || !functions_.order_no_op()) {
      return;
    }
    rule.ordered();
  }
}

}  // namespace kesh
