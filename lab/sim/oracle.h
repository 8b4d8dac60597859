/// What must hold, checked while it happens.
///
///   agreement    all nodes deliver the same submissions in the same order
///   integrity    what is delivered was submitted, whole, and no more than once
///   real time    what was acknowledged before another call began is delivered before it
///   acknowledged what was acknowledged is in the order, and its node has it
///   decision     one decision number has one log, on every disk and in every datagram; a quorum has accepted it
///   round        one round of a register carries one value, a quorum has promised it before it is written, and once a
///                quorum has accepted it, later rounds carry the same (register_votes.h)
///   promise      an answer of an acceptor, and a payload called complete, is on the disk; no promise goes back; who
///                writes in a round has promised it; a payload is on a quorum of disks before it is proposed; the file
///                of a payload in the log is not removed
///   numbers      in a node's files no number falls
///   silence      a stopped library sends nothing on channels 4 and 5, and calls no hook
///   verdict      stop returns in time, and after it all calls have returned
///   waiting      no thread waits for a mutex for ever; after cleanup no thread is left
///   memory       at rest a library holds little; after cleanup nothing
///
/// Without durable payloads a payload may be lost with the processes that held it, which the library says in its log,
/// or be ordered again by a leader that forgot its decision. From then on order and loss are not judged in this run.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "library_files.h"
#include "register_votes.h"
#include "sim_node.h"

namespace sim
{

/// One call of vx_cons_distribute.
struct submission {
  uint32_t id = 0;
  uint32_t node = 0;
  uint32_t length = 0;
  int64_t floor = -1;  ///< what has been acknowledged when it was called has places up to this
};

/// The bytes of a submission: its id, then bytes that depend on it.
std::vector<uint8_t> submission_bytes(const submission &one);

class oracle
{
public:
  using violated = std::function<void(const std::string &invariant, uint32_t node, const std::string &what)>;

  oracle(uint32_t nodes, bool is_durable, violated report)
      : is_durable_(is_durable), report_(std::move(report)), votes_(nodes), nodes_(nodes + 1)
  {
  }

  const submission &call(uint32_t node, uint32_t length);
  void returned(const submission &one, int result, const application &app);

  /// A deliver hook runs: `bytes` of a submission. Appends to the history, unless it is the last one once more.
  void delivered(sim_node &node, const uint8_t *bytes, uint32_t length, bool may_repeat);
  /// All types of a full state have come.
  void state_adopted(const sim_node &node, const std::vector<uint32_t> &history);

  void record_saved(const sim_node &node, const std::string &path, const file_bytes &bytes);
  void file_removed(const sim_node &node, const std::string &path);
  void sent(const sim_node &node, uint32_t channel, const datagram &one);
  void log_line(const sim_node &node, std::string_view text);
  /// What is on its disk is less than was saved: the power was cut before a sync, or the disk was lost.
  void disk_went_back(const sim_node &node);

  /// After healing: whether all are equal and have what was acknowledged. If not, `why` tells.
  bool is_healed(const std::vector<std::unique_ptr<sim_node>> &all, std::string &why) const;

  uint32_t top_decision() const { return decisions_.empty() ? 0 : decisions_.rbegin()->first; }
  uint64_t acknowledged() const;
  uint64_t acknowledged_by(uint32_t node) const { return nodes_[node].acknowledged; }
  uint64_t lost() const { return lost_; }
  uint64_t roll_overs() const { return states_.size(); }
  void break_promise(const std::string &invariant, uint32_t node, const std::string &what)
  {
    report_(invariant, node, what);
  }

private:
  struct node_numbers {
    uint32_t decision = 0;
    uint32_t msg_id = 0;
    uint64_t acknowledged = 0;
    std::map<uint32_t, std::pair<uint32_t, uint32_t>> registers;  // id: promised round, accepted round
    std::set<payload_name> removed;                               // files
  };

  void check_decision(uint32_t node, uint32_t number, std::string_view log, const char *where);
  void check_answer(const sim_node &node, uint32_t id, bool is_promise, uint32_t round);
  void check_own_promise(const sim_node &node, uint32_t id, uint32_t round);
  void check_votes(const sim_node &node, uint32_t type, uint32_t id, uint32_t round, std::string_view rest);
  void check_proposal(const sim_node &node, std::string_view value);
  void check_payload_message(const sim_node &node, const uint8_t *message);
  void check_register_saved(const sim_node &node, uint32_t id, const file_bytes &bytes);

  bool is_durable_;
  violated report_;
  std::vector<std::unique_ptr<submission>> submissions_;
  std::vector<uint32_t> order_;
  std::unordered_map<uint32_t, int64_t> place_;  // of a submission in the order
  int64_t acknowledged_top_ = -1;
  uint64_t lost_ = 0;  // payloads, or the order, without durable payloads
  std::map<uint32_t, uint64_t> decisions_;
  register_votes votes_;
  std::map<payload_name, uint32_t> holders_;  // that offered it or called it complete, a bit per node
  std::set<uint64_t> states_;                 // first entries of logs
  std::vector<node_numbers> nodes_;
};

}  // namespace sim
