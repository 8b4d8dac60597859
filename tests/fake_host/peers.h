/// The other nodes of the cluster, as correct nodes behave: they vote, fetch what our node offers, hold payloads and
/// answer requests for them, adopt our decisions, and one of them may lead. Messages are never lost unless told so.
#pragma once

#include <map>
#include <mutex>
#include <set>

#include "fake_host.h"

namespace fake
{

class peers
{
public:
  /// Nodes 1 to node_count, without `own`.
  peers(uint32_t own, uint32_t node_count);
  ~peers();
  peers(const peers &) = delete;
  peers &operator=(const peers &) = delete;

  /// What the nodes do; all on at first. Nodes that do not serve are silent about payloads, those that do not vote
  /// about registers, those that do not fetch about our OFFERs.
  void set_votes(bool is_on);
  void set_fetches(bool is_on);
  void set_serves(bool is_on);

  /// Makes node `id` the leader, which orders what is forwarded to it; 0: none of them leads.
  void lead(uint32_t id);
  /// The leader appends the entries, one decision each, and makes the last known. At an empty or full log it begins a
  /// new one with a state of its own first.
  void order(const wire::log &entries);
  /// Node `id` submits: it holds the payload; with `is_offered`, our node and the others hear of it and fetch it.
  wire::entry submit(uint32_t id, const bytes &payload, bool is_offered = true);
  void hold_payload(uint32_t id, wire::entry e, const bytes &payload);
  void forget_payload(wire::entry e);
  /// The state that the leader's next new log begins with.
  void set_state(const std::string &state);

  /// The last decision that the peers know.
  uint32_t number() const;
  wire::log entries() const;
  void adopt(uint32_t number, const wire::log &entries);
  /// DECIDE of what they know, from node `from`.
  void announce(uint32_t from);
  /// Whether every peer holds the payload.
  bool have(wire::entry e) const;
  bytes payload_of(uint32_t id, wire::entry e) const;
  /// A promise or a value, as if given before this test looks.
  void set_register(uint32_t id, uint32_t reg, uint32_t read_round, uint32_t write_round, const bytes &value);

private:
  struct acceptor {
    uint32_t read_round = 0;
    uint32_t write_round = 0;
    bytes value;
  };
  struct assembly {
    bytes payload;
    std::set<uint32_t> offsets;
  };
  struct node {
    std::map<uint32_t, acceptor> registers;
    std::map<wire::entry, bytes> payloads;
    std::map<wire::entry, assembly> fetching;
    std::set<wire::entry> lacked;   ///< asked for in vain: a node that asks again is told what is decided,
    bool is_asked_in_vain = false;  ///< and from then on with each answer
    uint32_t last_id = 1;
  };

  void receive(const sent_message &message);
  void receive_register(const sent_message &message);
  void receive_paxos(const sent_message &message);
  void receive_data(const sent_message &message);
  void receive_piece(uint32_t id, node &n, wire::entry e, const bytes &body);
  void serve(uint32_t id, node &n, wire::entry e, uint32_t offset, uint32_t length);
  void begin_log();

  mutable std::mutex lock_;
  std::map<uint32_t, node> nodes_;
  bool votes_ = true;
  bool fetches_ = true;
  bool serves_ = true;
  uint32_t leader_ = 0;
  uint32_t number_ = 0;
  wire::log entries_;
  std::map<uint8_t, uint32_t> ordered_;  ///< highest identifier of each node in the log
  std::string state_ = "state of the leader";
};

}  // namespace fake
