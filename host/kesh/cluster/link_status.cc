// What the status of the daemon shows of the cluster.
#include "cluster/cluster_link.h"

namespace kesh
{

namespace
{

using nlohmann::json;

const char *verdict_name(agreement_kind kind)
{
  switch (kind) {
  case agreement_kind::agrees:
    return "agrees";
  case agreement_kind::diverged:
    return "diverged";
  case agreement_kind::not_compared:
    break;
  }
  return "not compared";
}

json answer_json(const lead_answer &answer)
{
  return {{"yes", answer.yes}, {"reason", answer.reason}};
}

json peer_json(const peer_view &peer)
{
  const hello &said = peer.last;
  return {{"node", said.node},
          {"age_ms", peer.age_ms},
          {"heard_us_ms", peer.echo_age_ms ? json(*peer.echo_age_ms) : json(nullptr)},
          {"role", node_role_name(said.role)},
          {"build", said.build},
          {"generation", said.cluster.generation},
          {"is_member", peer.is_member},
          {"standing", standing_name(said.stands)},
          {"decision", said.decision},
          {"n", said.position.n},
          {"hash", hash_text(said.position.hash)},
          {"complete", said.position.complete},
          {"verdict", verdict_name(peer.verdict.kind)},
          {"verdict_n", peer.verdict.n},
          {"reason", said.reason}};
}

json peers_json(const std::vector<peer_view> &peers)
{
  json all = json::array();
  for (const peer_view &one : peers) {
    all.push_back(peer_json(one));
  }
  return all;
}

json stranger_json(const std::optional<peer_view> &stranger)
{
  return stranger ? json{{"cluster", stranger->last.cluster.name},
                         {"mac", stranger->last.cluster.first_mac},
                         {"node", stranger->last.node},
                         {"nodes", stranger->last.node_count},
                         {"generation", stranger->last.cluster.generation},
                         {"state_max", stranger->last.state_max},
                         {"age_ms", stranger->age_ms}}
                  : json(nullptr);
}

json barred_json(const std::optional<outvoted> &barred)
{
  return barred ? json{{"n", barred->n}, {"hash", hash_text(barred->hash)}, {"nodes", barred->nodes}} : json(nullptr);
}

json disk_json(const std::optional<lost_decisions> &lost)
{
  return lost ? json{{"told_by", lost->told_by}, {"decision", lost->decision}} : json(nullptr);
}

}  // namespace

nlohmann::json cluster_link::status_json()
{
  const cluster_view seen = view();
  json status = {{"sentence", ordering_sentence()},
                 {"name", hello_settings_.cluster.name},
                 {"generation", hello_settings_.cluster.generation},
                 {"eligible", answer_json(eligible())},
                 {"may_lead", answer_json(may_lead())},
                 {"may_submit", answer_json(may_submit())},
                 {"barred", barred_json(seen.barred)},
                 {"disk_went_back", disk_json(seen.disk_went_back)},
                 {"stranger", stranger_json(seen.stranger)},
                 {"hellos_with_own_number", seen.own_number_count},
                 {"hellos_dropped", hello_.dropped()},
                 {"peers", peers_json(seen.peers)}};
  const platform::lock_scope scope(lock_);
  status["standing"] = standing_name(newcomer_.stands());
  status["vrrp"] = vrrp_state_name(facts_now().vrrp);
  status["reason"] = facts_ ? facts_->reason : "";
  status["ordering"] = facts_ && ordering_.obstacles.empty();
  status["not_ordering_ms"] = not_ordering_ms_;
  status["leader_changes"] = leader_changes_;
  return status;
}

}  // namespace kesh
