#include "metrics/metrics_text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

namespace kesh
{

using nlohmann::json;

namespace
{

constexpr double NUMBER_SPACE = 4294967296.0;  // decisions and identifiers have 32 bits

std::string number_text(double value)
{
  char text[32];
  snprintf(text, sizeof text, "%.17g", value);
  return text;
}

class writer
{
public:
  void family(const char *name, const char *type, const char *help)
  {
    name_ = std::string("kesh_") + name;
    text_ += "# HELP " + name_ + ' ' + help + "\n# TYPE " + name_ + ' ' + type + '\n';
  }
  void sample(double value, const std::string &labels = "", const char *suffix = "")
  {
    text_ += name_ + suffix + (labels.empty() ? "" : '{' + labels + '}') + ' ' + number_text(value) + '\n';
  }
  /// Of an object with count and sum_us.
  void sum_and_count(const json &of, const std::string &labels = "")
  {
    sample(of.at("sum_us").get<double>() / 1e6, labels, "_sum");
    sample(of.at("count").get<double>(), labels, "_count");
  }
  void one(const char *name, const char *type, const char *help, double value)
  {
    family(name, type, help);
    sample(value);
  }
  std::string text() && { return std::move(text_); }

private:
  std::string text_;
  std::string name_;
};

double number_of(const json &value)
{
  return value.is_boolean() ? (value.get<bool>() ? 1 : 0) : value.get<double>();
}

std::string label(const char *name, const std::string &value)
{
  return std::string(name) + "=\"" + value + '"';
}

/// A sample per key of the object.
void write_each(writer &to, const json &object, const char *label_name, const std::vector<const char *> &keys)
{
  for (const char *key : keys) {
    to.sample(number_of(object.at(key)), label(label_name, key));
  }
}

void write_submissions(writer &to, const json &sent)
{
  to.one("submissions_open", "gauge", "Items of this node without a result.", number_of(sent.at("open")));
  to.family("submissions_total", "counter", "Items of this node by result.");
  write_each(to, sent, "result", {"acknowledged", "not_submitted", "unknown", "refused"});
  to.one("submission_repeats_total", "counter", "Attempts of items after their first.", number_of(sent.at("again")));
  to.one("payloads_submitted_total", "counter", "Payloads of this node that were handed to the library.",
         number_of(sent.at("payloads")));
  const json &times = sent.at("latency");
  to.family("submission_seconds", "histogram", "From the arrival of an acknowledged item to its result.");
  double below = 0;
  for (const json &bucket : times.at("buckets")) {
    below += bucket.at("count").get<double>();
    to.sample(below, label("le", number_text(bucket.at("us").get<double>() / 1e6)), "_bucket");
  }
  to.sample(number_of(times.at("total")), label("le", "+Inf"), "_bucket");
  to.sample(times.at("sum_us").get<double>() / 1e6, "", "_sum");
  to.sample(number_of(times.at("total")), "", "_count");
}

void write_library(writer &to, const json &library)
{
  to.family("save_seconds", "summary", "What the library's saves take, by what is saved.");
  for (const auto &[kind, saves] : library.at("saves").items()) {
    to.sum_and_count(saves, label("file", kind));
  }
  to.family("roll_over_seconds", "summary",
            "How long new logs held the order up: from the making of their state by this node until it was taken.");
  to.sum_and_count(library.at("roll_overs"));
}

void write_journal(writer &to, const json &lines)
{
  to.one("payloads_applied", "gauge", "Payloads that the store has applied, n.", number_of(lines.at("n")));
  to.one("journal_lines", "gauge", "Number of the journal's last line.", number_of(lines.at("lines")));
  to.one("journal_bytes", "gauge", "Bytes of the payloads that the store keeps.", number_of(lines.at("bytes")));
  to.one("state_bytes", "gauge", "Size of the last state that was made or taken.", number_of(lines.at("state_bytes")));
  to.family("commit_seconds", "summary", "What the durable commit of a payload in the store takes.");
  to.sum_and_count(lines.at("commits"));
  to.one("incomplete", "gauge", "1: the store waits for a state.",
         lines.at("incomplete").get<std::string>().empty() ? 0 : 1);
  to.family("states_total", "counter", "States of the cluster that arrived, by what became of the own store.");
  write_each(to, lines.at("states"), "store", {"kept", "extended", "replaced"});
  to.one("stores_put_aside_total", "counter", "Stores that were put aside.", number_of(lines.at("put_aside")));
  to.one("rejoins_total", "counter", "Times that the store did not fit the library's records.",
         number_of(lines.at("rejoined")));
}

/// A node that was never heard has been silent as long as this daemon runs.
void write_last_heard(writer &to, const json &status, const json &peers)
{
  to.family("peer_last_heard_seconds", "gauge", "Age of the last hello of a node, or of the daemon if there was none.");
  const auto node_count = status.at("node_count").get<uint32_t>();
  for (uint32_t node = 1; node <= node_count; ++node) {
    if (node == status.at("node_id")) {
      continue;
    }
    const auto said = std::find_if(peers.begin(), peers.end(), [&](const json &one) { return one.at("node") == node; });
    to.sample(said == peers.end() ? number_of(status.at("uptime_s")) : said->at("age_ms").get<double>() / 1000,
              label("node", std::to_string(node)));
  }
}

void write_peers(writer &to, const json &peers)
{
  if (peers.empty()) {
    return;
  }
  const auto each = [&](const char *name, const char *help, const auto &value) {
    to.family(name, "gauge", help);
    for (const json &one : peers) {
      to.sample(value(one), label("node", std::to_string(one.at("node").get<uint32_t>())));
    }
  };
  each("peer_decision", "Last decision that a node told.",
       [](const json &one) { return number_of(one.at("decision")); });
  each("peer_diverged", "1: a node has another history.",
       [](const json &one) { return one.at("verdict") == "diverged" ? 1.0 : 0.0; });
}

void write_cluster(writer &to, const json &status)
{
  const json &cluster = status.at("cluster");
  to.one("ordering", "gauge", "1: payloads are ordered, as this node sees it.", number_of(cluster.at("ordering")));
  to.one("not_ordering_seconds_total", "counter", "Time in which nothing was ordered, as this node saw it.",
         cluster.at("not_ordering_ms").get<double>() / 1000);
  to.one("leader_changes_total", "counter", "Times that another node led than before, as this node saw it.",
         number_of(cluster.at("leader_changes")));
  to.one("barred", "gauge", "1: this node must not lead, since a quorum has another history.",
         cluster.at("barred").is_null() ? 0 : 1);
  to.one("hellos_with_own_number_total", "counter", "Hellos of another daemon with the number of this node.",
         number_of(cluster.at("hellos_with_own_number")));
  write_last_heard(to, status, cluster.at("peers"));
  write_peers(to, cluster.at("peers"));
}

void write_messages(writer &to, const json &messages)
{
  const auto channel_of = [](const json &one) {
    return label("channel", std::to_string(one.at("channel").get<uint32_t>())) + ',';
  };
  to.family("datagrams_total", "counter", "Datagrams sent and received.");
  for (const json &one : messages.at("channels")) {
    for (const char *direction : {"sent", "received"}) {
      to.sample(number_of(one.at(direction)), channel_of(one) + label("direction", direction));
    }
  }
  to.one("messages_repeated", "gauge", "Messages that are being repeated.", number_of(messages.at("queued")));
  to.family("datagrams_dropped_total", "counter", "Datagrams that were not handed on, or messages not sent.");
  for (const json &one : messages.at("channels")) {
    for (const auto &[reason, count] : one.at("dropped").items()) {
      to.sample(number_of(count), channel_of(one) + label("reason", reason));
    }
  }
  std::vector<std::pair<std::string, double>> of_peers;
  for (const json &peer : messages.at("peers")) {
    const std::string node = label("peer", std::to_string(peer.at("node").get<uint32_t>()));
    for (const auto &[reason, count] : peer.at("dropped").items()) {
      of_peers.emplace_back(node + ',' + label("reason", reason), number_of(count));
    }
  }
  if (!of_peers.empty()) {
    to.family("peer_datagrams_dropped_total", "counter", "Of these, the ones that came from a node's address.");
    for (const auto &[labels, count] : of_peers) {
      to.sample(count, labels);
    }
  }
}

/// What a node does not know, since it has no such record, is left out.
void write_number_spaces(writer &to, const json &status)
{
  to.family("number_space_used_ratio", "gauge", "Share of the 32-bit numbers that is used; kesh reform begins anew.");
  if (const json &decision = status.at("decision"); !decision.is_null()) {
    to.sample(number_of(decision.at("number")) / NUMBER_SPACE, label("numbers", "decision"));
  }
  if (const json &identifier = status.at("identifier"); !identifier.is_null()) {
    to.sample(number_of(identifier) / NUMBER_SPACE, label("numbers", "identifier"));
  }
}

}  // namespace

std::string metrics_text(const json &status)
{
  writer to;
  to.family("build_info", "gauge", "1; the build stands in the label.");
  to.sample(1, label("build", std::to_string(status.at("build").get<uint64_t>())));
  to.one("uptime_seconds", "gauge", "Age of the daemon.", number_of(status.at("uptime_s")));
  to.one("active", "gauge", "1: the library runs.", number_of(status.at("active")));
  to.one("leader", "gauge", "1: this node leads.", number_of(status.at("leader")));
  if (const json &decision = status.at("decision"); !decision.is_null()) {
    to.one("decision", "gauge", "Number of the last decision.", number_of(decision.at("number")));
    to.one("log_entries", "gauge", "Entries of the library's log; the 250th is the last.",
           number_of(decision.at("entries")));
  }
  write_number_spaces(to, status);
  if (const json &cluster = status.at("cluster"); cluster.contains("ordering")) {
    write_cluster(to, status);
  }
  write_submissions(to, status.at("submissions"));
  write_library(to, status.at("library"));
  write_journal(to, status.at("journal"));
  write_messages(to, status.at("messages"));
  to.one("payloads_lost_total", "counter", "Payloads that the library gave up, since no node has them any more.",
         number_of(status.at("payloads_lost")));
  to.one("library_errors_total", "counter", "Lines of the library that tell of an error.",
         number_of(status.at("library_errors")));
  to.one("log_lines_dropped_total", "counter", "Lines of the log that a slow disk cost.",
         number_of(status.at("log_lines_dropped")));
  return std::move(to).text();
}

}  // namespace kesh
