/// This node's part in the cluster beside the library: it says hello, judges what the others say, decides whether this
/// node may lead and submit, and writes the node state file, which nobody else writes.
///
/// Order of use: construct; platform::messaging_start; start(); vx_cons_init. At the end vx_cons_cleanup; stop();
/// platform::messaging_stop; destruct: the filter and the hook of channel 7 may run until messaging has stopped.
///
/// Threads: the hello thread gathers facts once a second, judges and decides. The work thread orders no-ops and has the
/// library restarted. No lock is held while a function of link_functions runs, and none may call start() or stop().
/// lock_ is held while the node state file is written, never while a disk is in use; standing_lock_ is held while
/// the file of the standing is written. The filter takes no lock, the hook of channel 7 only that of the hello service.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "cluster/hello_service.h"
#include "cluster/host_channel.h"
#include "cluster/lead.h"
#include "cluster/newcomer.h"
#include "cluster/no_op_rule.h"
#include "cluster/node_state_file.h"
#include "cluster/ordering.h"
#include "cluster/own_records.h"
#include "cluster/reform.h"
#include "cluster/standing_file.h"
#include "cluster/store_look.h"
#include "cluster/vote_filter.h"
#include "guarded.h"
#include "platform.h"
#include "probe/probe_service.h"
#include "settings.h"
#include "store/store.h"

namespace kesh
{

inline constexpr char RECORDS_DIRECTORY[] = "/flashdisk/cons";

/// What the link asks of the daemon. None may be null, but for may_submit_changed.
struct link_functions {
  /// What the library does: stopped, isolated, or, if it runs, whether it leads. Any thread; waits for nothing.
  std::function<node_role()> role;
  /// Since when it is isolated, and why: " since TIME: LINE"; empty if it is not. Any thread; waits for nothing.
  std::function<std::string()> isolated;
  /// Why no payload finds room on the disk; empty: one does. Hello thread.
  std::function<std::string()> no_room;
  /// How long the oldest open submission waits, in s; 0: none does. Hello thread.
  std::function<uint64_t()> oldest_wait_s;
  /// Orders one no-op, as a payload of its own. Waits until its fate is known; true: it was applied here. Work thread.
  std::function<bool()> order_no_op;
  /// Asks the main thread to leave the cluster, log the reason as an error and stay out. Hello thread; waits for
  /// nothing. Called once for each reason.
  std::function<void(const std::string &reason)> stop_protocol;
  /// Stops the library, does `work`, and starts the library again, whatever `work` says. Fails if the library does not
  /// run or the daemon is stopping. Work thread.
  using stopped_work = std::function<bool(std::string &error)>;
  std::function<bool(const stopped_work &work, std::string &error)> restart_protocol;
  /// may_submit() gives another answer. Hello thread, or the one that calls start() or before_library_start().
  std::function<void()> may_submit_changed;
};

/// Where things are. Tests have other places.
struct link_places {
  std::string records = RECORDS_DIRECTORY;
  std::string node_state = NODE_STATE_PATH;
  std::string vrrp_state = VRRP_STATE_PATH;
  std::function<void(std::string_view hello)> send;  ///< null: on channel 7, to all nodes
  std::chrono::milliseconds period{1000};
};

class cluster_link
{
public:
  /// The store and what the functions use must live until stop() has returned. Keeps nothing of the settings.
  cluster_link(const settings &configured, store &of, link_functions functions, link_places places = {});
  ~cluster_link();
  cluster_link(const cluster_link &) = delete;
  cluster_link &operator=(const cluster_link &) = delete;

  /// The store is open and messaging runs; the library does not. Without a configured cluster it does nothing. Throws
  /// std::system_error if a thread cannot be created.
  void start() PLATFORM_EXCLUDES(lock_);
  /// Writes BACKUP, waits for a function that runs, ends the threads. To be called with no lock held that a function
  /// needs, and when order_no_op and restart_protocol return soon. Harmless at any time.
  void stop() PLATFORM_EXCLUDES(lock_);

  /// Just before vx_cons_start: writes BACKUP, looks whether this node has a past, and marks one without as new. False:
  /// the library must not be started, `error` says why.
  bool before_library_start(std::string &error) PLATFORM_EXCLUDES(lock_);
  /// vx_cons_start has returned 0.
  void library_started() PLATFORM_EXCLUDES(lock_);
  /// Just before vx_cons_stop, after a start that failed, and after an isolation. Writes BACKUP at once.
  void library_stopped() PLATFORM_EXCLUDES(lock_);

  /// The store became complete, incomplete or another one. From a hook too: needs little stack.
  void changed() noexcept PLATFORM_EXCLUDES(lock_);
  /// keepalived's word in its file may be another one. Without this call it is seen within a second.
  void vrrp_changed() PLATFORM_EXCLUDES(lock_);

  /// Whether keepalived may choose this node.
  lead_answer eligible() PLATFORM_EXCLUDES(lock_);
  /// Whether payloads are ordered and this node may submit, as of the last hello.
  lead_answer ready() PLATFORM_EXCLUDES(lock_);
  /// Whether the node state file says MASTER, as far as it depends on this object.
  lead_answer may_lead() PLATFORM_EXCLUDES(lock_);
  /// Whether vx_cons_distribute may be called. No: wait for may_submit_changed, or refuse.
  lead_answer may_submit() PLATFORM_EXCLUDES(lock_);

  /// The library begins a new generation with the stores of the one before: an empty log fits the store. To be asked
  /// after before_library_start().
  bool is_reformed() PLATFORM_EXCLUDES(lock_);

  cluster_view view();
  /// "ordering", or "not ordering: ..", as of the last hello.
  std::string ordering_sentence() PLATFORM_EXCLUDES(lock_);
  /// For the status of the daemon.
  nlohmann::json status_json() PLATFORM_EXCLUDES(lock_);

  bool is_configured() const { return is_configured_; }
  /// What asks the other nodes, and answers them, while messaging runs. Any thread.
  probe_service &probes() { return probes_; }

  /// A hello that arrived. Any thread.
  void receive(std::string_view bytes) noexcept;

private:
  /// For the log, once no lock is held.
  using log_text = std::optional<std::pair<platform::log_level, std::string>>;
  static void say(const log_text &line);
  static void receive_hook(void *msg);
  hello_functions make_functions();

  // Hello thread.
  own_facts gather() PLATFORM_EXCLUDES(lock_) PLATFORM_EXCLUDES(standing_lock_);
  void look_for_ids(const told_position &now, std::string &reason);
  void note_hello(const hello &said) PLATFORM_EXCLUDES(lock_);
  void judged(const cluster_view &view) PLATFORM_EXCLUDES(lock_);
  std::string obstacle_to_reform(const told_position &own) PLATFORM_EXCLUDES(standing_lock_);
  void advance_newcomer(const own_records &records, const message_ids &known, std::string obstacle)
      PLATFORM_EXCLUDES(lock_) PLATFORM_EXCLUDES(standing_lock_);
  ordering_facts facts_of_ordering(const own_facts &now) PLATFORM_EXCLUDES(lock_);
  void note_room(bool has_room, const cluster_view &seen) PLATFORM_EXCLUDES(lock_);
  void note_ordering(const ordering &found) PLATFORM_REQUIRES(lock_);
  ordering_peer ordering_peer_of(const peer_view &one) const;

  // Work thread.
  void work() PLATFORM_EXCLUDES(lock_);
  void raise_msg_id(uint32_t to, std::chrono::steady_clock::time_point &not_before);
  void order_no_ops(no_op_rule &rule) PLATFORM_EXCLUDES(lock_);
  bool is_stopping() PLATFORM_EXCLUDES(lock_);

  /// May call may_submit_changed.
  void tell_submission() PLATFORM_EXCLUDES(lock_) PLATFORM_EXCLUDES(standing_lock_);
  bool look_for_past(std::string &error) PLATFORM_EXCLUDES(lock_) PLATFORM_EXCLUDES(standing_lock_);
  /// Why this node must take no part until a person has seen to it; empty: it may.
  std::string stays_out() const PLATFORM_REQUIRES(lock_);
  /// A majority with this node has heard this session, and nobody of it knows that this node has forgotten a vote. To
  /// be sure it would have to hear all of them, and the cluster could not do without one.
  bool is_echoed() const PLATFORM_REQUIRES(lock_) { return echoes_ >= hello_settings_.node_count / 2; }
  bool may_vote() const PLATFORM_REQUIRES(lock_);
  lead_facts facts_now() const PLATFORM_REQUIRES(lock_);
  /// Lets votes pass or not, and writes the node state file, by what is known now.
  [[nodiscard]] log_text decide() PLATFORM_REQUIRES(lock_);

  store &store_;
  const link_functions functions_;
  const link_places places_;
  const uint64_t cluster_id_;
  const hello_settings hello_settings_;
  const bool is_configured_;
  const standing_file standing_file_;
  vote_filter filter_;
  bool is_used_ = false;  // start and stop only, as worker_
  std::thread worker_;

  // Hello thread only.
  records_reader records_;
  store_look look_;
  uint32_t told_decision_ = 0;

  platform::mutex standing_lock_;  // held while the standing is written; lock_ may be taken under it
  kept_standing kept_ PLATFORM_GUARDED_BY(standing_lock_);

  platform::mutex lock_;
  platform::condition wake_worker_;  // stopping, or an id is to be raised
  bool is_stopping_ PLATFORM_GUARDED_BY(lock_) = false;
  bool is_started_ PLATFORM_GUARDED_BY(lock_) = false;
  uint64_t looks_ PLATFORM_GUARDED_BY(lock_) = 0;  // at the store: only the last one that began counts
  bool is_complete_ PLATFORM_GUARDED_BY(lock_) = false;
  bool is_barred_ PLATFORM_GUARDED_BY(lock_) = false;
  bool has_disk_gone_back_ PLATFORM_GUARDED_BY(lock_) = false;
  bool has_double_ PLATFORM_GUARDED_BY(lock_) = false;
  bool has_lasting_double_ PLATFORM_GUARDED_BY(lock_) = false;
  std::string told_out_ PLATFORM_GUARDED_BY(lock_);  // the reason for which the library was to stop last
  uint32_t echoes_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool has_run_ PLATFORM_GUARDED_BY(lock_) = false;                       // the library, in this session
  std::optional<uint32_t> decision_at_start_ PLATFORM_GUARDED_BY(lock_);  // of this session
  newcomer newcomer_ PLATFORM_GUARDED_BY(lock_);
  std::optional<uint32_t> msg_id_wanted_ PLATFORM_GUARDED_BY(lock_);
  std::optional<own_facts> facts_ PLATFORM_GUARDED_BY(lock_);  // told last
  ordering ordering_ PLATFORM_GUARDED_BY(lock_);               // found then
  int64_t judged_ms_ PLATFORM_GUARDED_BY(lock_) = 0;           // when
  int64_t not_ordering_ms_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint32_t last_leader_ PLATFORM_GUARDED_BY(lock_) = 0;  // 0: none was seen
  int64_t has_room_from_ms_ PLATFORM_GUARDED_BY(lock_) = 0;
  uint32_t substitute_ PLATFORM_GUARDED_BY(lock_) = 0;  // another node that could lead, as of the last hello; 0: none
  uint64_t leader_changes_ PLATFORM_GUARDED_BY(lock_) = 0;
  bool told_may_submit_ PLATFORM_GUARDED_BY(lock_) = false;
  bool was_master_ PLATFORM_GUARDED_BY(lock_) = false;
  std::string written_ PLATFORM_GUARDED_BY(lock_);  // what was said of the node state file last

  const host_channel channel_;
  probe_service probes_;
  hello_service hello_;  // last, for its thread uses all of the above
};

}  // namespace kesh
