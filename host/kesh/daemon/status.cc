#include "daemon/status.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "daemon/node_files.h"
#include "items/item_text.h"
#include "message.h"
#include "messaging_settings.h"
#include "platform.h"
#include "vx_cons.h"
#include "vx_host.h"

namespace kesh
{

using nlohmann::json;

namespace
{

json journal_fields(service &host)
{
  const store_position now = host.lines.position();
  const journal_end end = host.lines.end();
  const state_counters &states = host.states;
  return {{"store", host.configured.store_path},
          {"lines", end.lines},
          {"hash", end.key},
          {"first_line", now.first_line},
          {"n", now.n},
          {"chain", hash_text(now.hash)},
          {"bytes", now.bytes},
          {"incomplete", now.incomplete},
          {"commits", {{"count", now.commits.count}, {"sum_us", now.commits.sum_us}}},
          {"states",
           {{"kept", states.kept.load()}, {"extended", states.extended.load()}, {"replaced", states.replaced.load()}}},
          {"state_bytes", states.bytes.load()},
          {"put_aside", states.put_aside.load()},
          {"rejoined", states.rejoined.load()}};
}

json library_fields(const roll_over_clock &roll_overs)
{
  const auto saves = [](uint32_t kind) -> json {
    const vx_cons_saves of = vx_cons_get_saves(kind);
    return {{"count", of.count}, {"sum_us", of.microseconds}};
  };
  const roll_over_clock::times rolled = roll_overs.read();
  return {{"saves",
           {{"record", saves(VX_CONS_SAVES_RECORD)},
            {"register", saves(VX_CONS_SAVES_REGISTER)},
            {"payload", saves(VX_CONS_SAVES_PAYLOAD)}}},
          {"roll_overs", {{"count", rolled.count}, {"sum_us", rolled.sum_us}}}};
}

json latency_fields(const latencies &times)
{
  json buckets = json::array();
  for (size_t i = 0; i < times.counts.size(); i++) {
    buckets.push_back({{"us", latencies::BOUNDS_US[i]}, {"count", times.counts[i]}});
  }
  return {{"buckets", buckets}, {"total", times.total}, {"sum_us", times.sum_us}};
}

json dropped_fields(const platform::drop_counts &counts, bool with_zeros)
{
  json dropped = json::object();
  for (size_t i = 0; i < counts.size(); i++) {
    if (with_zeros || counts[i] != 0) {
      dropped[platform::drop_reason_name(static_cast<platform::drop_reason>(i))] = counts[i];
    }
  }
  return dropped;
}

json message_fields(size_t node_count)
{
  const platform::messaging_statistics counted = platform::messaging_read_statistics();
  json peers = json::array();
  for (size_t i = 0; i < node_count; i++) {
    const platform::peer_statistics &of = counted.peers[i];
    peers.push_back({{"node", i + 1},
                     {"address", platform::messaging_address(static_cast<uint32_t>(i + 1))},
                     {"key", of.key ? json(*of.key) : json(nullptr)},
                     {"dropped", dropped_fields(of.dropped, false)}});
  }
  json channels = json::array();
  for (size_t i = 0; i < counted.channels.size(); i++) {
    const platform::traffic_statistics &of = counted.channels[i];
    channels.push_back({{"channel", i + platform::CHANNEL_FIRST},
                        {"sent", of.sent},
                        {"received", of.received},
                        {"dropped", dropped_fields(of.dropped, true)}});
  }
  return {{"sent", counted.sent},
          {"received", counted.received},
          {"queued", counted.queued},
          {"channels", channels},
          {"dropped", dropped_fields(counted.dropped, true)},
          {"sealed", counted.seals_with ? json(*counted.seals_with) : json(nullptr)},
          {"accepts_plain", counted.accepts_plain},
          {"peers", peers}};
}

std::string yes_no(const json &value)
{
  return value.get<bool>() ? "yes" : "no";
}

std::string number_text(const json &value)
{
  return std::to_string(value.get<uint64_t>());
}

std::string decision_text(const json &decision)
{
  return decision.is_null()
             ? "none on disk"
             : number_text(decision.at("number")) + " (" + number_text(decision.at("entries")) + " entries in the log)";
}

std::string delivery_text(const json &delivery)
{
  return delivery.is_null()
             ? "none on disk"
             : "message " + number_text(delivery.at("msg_id")) + " of node " + number_text(delivery.at("sender"));
}

std::string journal_text(const json &lines)
{
  std::string text = number_text(lines.at("lines")) + " lines, hash " + lines.at("hash").get<std::string>();
  if (lines.at("first_line") != 1) {
    text += ", from line " + number_text(lines.at("first_line"));
  }
  if (const std::string why = lines.at("incomplete"); !why.empty()) {
    text += ", INCOMPLETE until the next full state: " + why;
  }
  return text;
}

std::string answer_text(const json &answer)
{
  return answer.at("yes").get<bool>() ? "yes" : "no: " + answer.at("reason").get<std::string>();
}

std::string node_text(const json &node)
{
  return "node " + number_text(node.at("node")) + " (" + node.at("address").get<std::string>() + "): ";
}

/// Of a node that said hello.
std::string peer_text(const json &peer)
{
  const json &heard_us = peer.at("heard_us_ms");
  std::string text =
      peer.at("role").get<std::string>() + ", " + peer.at("standing").get<std::string>() + ", heard " +
      number_text(peer.at("age_ms")) + " ms ago, " +
      (heard_us.is_null() ? "does not hear this node" : "had heard this node " + number_text(heard_us) + " ms before") +
      ", decision " + number_text(peer.at("decision")) + ", payload " + number_text(peer.at("n")) + ", " +
      peer.at("verdict").get<std::string>();
  if (!peer.at("is_member").get<bool>()) {
    text += ", of generation " + number_text(peer.at("generation"));
  }
  if (!peer.at("complete").get<bool>()) {
    text += ", INCOMPLETE";
  }
  const auto reason = peer.at("reason").get<std::string>();
  return text + (reason.empty() ? "" : ": " + reason);
}

/// A row each of what needs a person.
std::vector<std::string> alarms(const json &cluster)
{
  std::vector<std::string> found;
  if (const json &barred = cluster.at("barred"); !barred.is_null()) {
    found.push_back("BARRED from leading: a quorum has another history at payload " + number_text(barred.at("n")));
  }
  if (const json &lost = cluster.at("disk_went_back"); !lost.is_null()) {
    found.push_back("THE DISK WENT BACK: node " + number_text(lost.at("told_by")) + " remembers decision " +
                    number_text(lost.at("decision")) + " of this node");
  }
  if (const json &other = cluster.at("stranger"); !other.is_null()) {
    found.push_back("a stranger is heard: node " + number_text(other.at("node")) + " of " +
                    number_text(other.at("nodes")) + ", cluster \"" + other.at("cluster").get<std::string>() +
                    "\", generation " + number_text(other.at("generation")) + ", state.max " +
                    number_text(other.at("state_max")));
  }
  if (const json &count = cluster.at("hellos_with_own_number"); count != 0) {
    found.push_back("another daemon had the number of this node, " + number_text(count) + " hellos");
  }
  return found;
}

std::string dropped_text(const json &dropped)
{
  std::string text;
  for (const auto &[reason, count] : dropped.items()) {
    text += (text.empty() ? "" : ", ") + reason + " " + number_text(count);
  }
  return text;
}

std::string seal_text(const json &messages)
{
  const json &key = messages.at("sealed");
  return (key.is_null() ? "no" : "with key " + number_text(key)) +
         (messages.at("accepts_plain").get<bool>() ? "; what is not sealed is accepted" : "");
}

/// Empty: there is nothing to tell.
std::string peer_seal_text(const json &peer)
{
  const json &key = peer.at("key");
  const json &dropped = peer.at("dropped");
  if (key.is_null() && dropped.empty()) {
    return {};
  }
  return "node " + number_text(peer.at("node")) + (key.is_null() ? ": not sealed" : ": key " + number_text(key)) +
         (dropped.empty() ? "" : ", dropped: " + dropped_text(dropped));
}

}  // namespace

json status_collect(service &host)
{
  const bool active = vx_cons_cluster_active() != 0;
  const auto up = std::chrono::steady_clock::now() - host.started_at;
  const submit_counts sent = host.submissions->counts();
  json status = {{"active", active},
                 {"enabled", vx_cons_cluster_enabled() != 0},
                 {"leader", active && node_state_read() == "MASTER"},
                 {"node_id", host.configured.node_id},
                 {"node_count", host.configured.node_count},
                 {"build", vx_firmware_dova_build_nr},
                 {"pid", getpid()},
                 {"life", hex_text(host.life, 16)},
                 {"uptime_s", std::chrono::duration_cast<std::chrono::seconds>(up).count()},
                 {"decision", nullptr},
                 {"delivery", nullptr},
                 {"identifier", nullptr},
                 {"library", library_fields(host.roll_overs)},
                 {"journal", journal_fields(host)},
                 {"submissions",
                  {{"open", sent.open},
                   {"acknowledged", sent.applied},
                   {"not_submitted", sent.not_submitted},
                   {"unknown", sent.unknown},
                   {"refused", sent.refused},
                   {"again", sent.again},
                   {"payloads", sent.payloads},
                   {"latency", latency_fields(sent.times)}}},
                 {"eligible", host.link->eligible().yes},
                 {"cluster", host.link->status_json()},
                 {"messages", message_fields(std::min<size_t>(host.configured.node_count, platform::NODES_MAX))},
                 {"log_lines_dropped", platform::log_dropped()},
                 {"library_errors", platform::log_library_errors()},
                 {"payloads_lost", platform::log_payloads_lost()},
                 {"heard", host.messages.count()}};
  if (const auto decision = last_decision_read()) {
    status["decision"] = {{"number", decision->number}, {"entries", decision->entries}};
  }
  if (const auto delivery = last_delivery_read()) {
    status["delivery"] = {{"sender", delivery->sender}, {"msg_id", delivery->msg_id}};
  }
  if (const auto identifier = last_identifier_read()) {
    status["identifier"] = *identifier;
  }
  return status;
}

std::string status_text(const json &status)
{
  const json &lines = status.at("journal");
  const json &sent = status.at("submissions");
  const json &messages = status.at("messages");
  std::string text;
  const auto row = [&text](std::string name, const std::string &value) {
    name.resize(15, ' ');
    text += name + value + '\n';
  };
  if (const json &cluster = status.at("cluster"); cluster.contains("sentence")) {
    text = cluster.at("sentence").get<std::string>() + "\n\n";
  }
  row("active", yes_no(status.at("active")) + (status.at("enabled").get<bool>() ? "" : " (no cluster configured)"));
  row("leader", yes_no(status.at("leader")));
  const json &nodes = messages.at("peers");
  const auto own =
      std::find_if(nodes.begin(), nodes.end(), [&](const json &one) { return one.at("node") == status.at("node_id"); });
  row("node", number_text(status.at("node_id")) + " of " + number_text(status.at("node_count")) +
                  (own == nodes.end() ? "" : ", address " + own->at("address").get<std::string>()));
  if (const json &cluster = status.at("cluster"); cluster.contains("standing")) {
    row("cluster", cluster.at("name").get<std::string>() + ", generation " + number_text(cluster.at("generation")) +
                       ", " + cluster.at("standing").get<std::string>());
    row("may lead", answer_text(cluster.at("may_lead")));
    row("may submit", answer_text(cluster.at("may_submit")));
    for (const std::string &alarm : alarms(cluster)) {
      row("", alarm);
    }
    for (const json &node : nodes) {
      if (node.at("node") != status.at("node_id")) {
        const json &peers = cluster.at("peers");
        const auto said = std::find_if(peers.begin(), peers.end(),
                                       [&](const json &one) { return one.at("node") == node.at("node"); });
        row("", node_text(node) + (said == peers.end() ? "not heard" : peer_text(*said)));
      }
    }
  }
  row("last decision", decision_text(status.at("decision")));
  row("last delivery", delivery_text(status.at("delivery")));
  row("journal", journal_text(lines));
  const json &states = lines.at("states");
  row("", "payload " + number_text(lines.at("n")) + ", H " + lines.at("chain").get<std::string>());
  row("states", number_text(states.at("kept")) + " kept, " + number_text(states.at("extended")) + " extended, " +
                    number_text(states.at("replaced")) + " replaced the store; " + number_text(lines.at("put_aside")) +
                    " stores put aside, rejoined " + number_text(lines.at("rejoined")) + " times");
  row("submissions", number_text(sent.at("open")) + " open, " + number_text(sent.at("acknowledged")) +
                         " acknowledged, " + number_text(sent.at("not_submitted")) + " not submitted, " +
                         number_text(sent.at("unknown")) + " unknown, " + number_text(sent.at("refused")) +
                         " refused; " + number_text(sent.at("payloads")) + " payloads, " +
                         number_text(sent.at("again")) + " attempts repeated");
  row("messages", number_text(messages.at("sent")) + " sent, " + number_text(messages.at("received")) + " received, " +
                      number_text(messages.at("queued")) + " being repeated");
  row("dropped", dropped_text(messages.at("dropped")));
  row("sealed", seal_text(messages));
  for (const json &peer : messages.at("peers")) {
    if (const std::string told = peer_seal_text(peer); !told.empty()) {
      row("", told);
    }
  }
  row("heard", number_text(status.at("heard")) + " cluster messages");
  row("up", number_text(status.at("uptime_s")) + " s, process " + number_text(status.at("pid")) + ", build " +
                number_text(status.at("build")));
  return text;
}

}  // namespace kesh
