#include "cluster/cluster_link.h"

#include <gtest/gtest.h>

#include "bytes.h"
#include "cluster/configured_cluster.h"
#include "store_fixture.h"
#include "watched.h"

using namespace kesh;

namespace
{

std::string le32(uint32_t value)
{
  std::string bytes;
  put_le(bytes, value);
  return bytes;
}

/// A node of three whose daemon and library the test plays.
struct played_daemon {
  played_daemon(const std::filesystem::path &directory, uint32_t number, watched &of) : at(directory), events(of)
  {
    std::filesystem::create_directories(at / "cons");
    configured.node_id = number;
    configured.node_count = 3;
    configured.cluster_name = "blue";
    configured.first_mac = "02:00:00:00:00:01";
    std::string why;
    if (lines.open({(at / "store").string(), "blue", 1 << 20}, why) == store_found::absent) {
      lines.create();
    }
  }
  ~played_daemon()
  {
    if (link) {
      link->stop();
    }
  }

  /// What the library's records say. `delivered`: the last entry, too.
  void records(uint32_t decision, const std::vector<library_entry> &log, bool delivered = true)
  {
    std::string bytes = le32(decision) + le32(static_cast<uint32_t>(log.size()));
    for (const library_entry &one : log) {
      bytes += library_entry_bytes(one);
    }
    bytes.resize(1258);
    write("cons/paxos_deliver", library_entry_bytes(delivered && !log.empty() ? log.back() : library_entry{}));
    write("cons/paxos_decide", bytes);
  }
  void empty_disk()
  {
    std::filesystem::remove_all(at / "cons");
    std::filesystem::create_directories(at / "cons");
    records(0, {});
    write("cons/msg_id", le32(1));
  }
  void write(const std::string &name, const std::string &bytes) const
  {
    store_testing::write_file(at / (name + ".new"), bytes);
    std::filesystem::rename(at / (name + ".new"), at / name);
  }
  std::string read(const std::string &name) const { return store_testing::read_file(at / name); }
  std::string node_state() const { return read("node_state"); }

  /// A daemon's start, and that of its library.
  void start(const std::vector<played_daemon *> &others)
  {
    to = others;
    link_functions functions;
    functions.role = [this] { return role.load(); };
    functions.no_room = [this] { return std::string(is_full ? "7 bytes are free" : ""); };
    functions.order_no_op = [this] {
      events.with([&] { ++no_ops; });
      return true;
    };
    functions.stop_protocol = [this](const std::string &reason) { events.with([&] { stopped_for = reason; }); };
    functions.restart_protocol = [this](const auto &work, std::string &error) {
      link->library_stopped();
      const bool done = work(error);
      events.with([&] { ++restarts; });
      return start_library(error) && done;
    };
    link_places places;
    places.records = at / "cons";
    places.node_state = at / "node_state";
    places.vrrp_state = at / "vrrp";
    places.period = std::chrono::milliseconds(5);
    places.send = [this](std::string_view bytes) {
      for (played_daemon *one : to) {
        one->hear(bytes);
      }
      events.with([] {});
    };
    const std::lock_guard unplugged(wire);
    link = std::make_unique<cluster_link>(configured, lines, functions, places);
  }
  /// Others go on while this node's daemon is another one.
  void hear(std::string_view bytes)
  {
    const std::lock_guard plugged(wire);
    link->receive(bytes);
  }
  void run()
  {
    link->start();
    std::string error;
    EXPECT_TRUE(start_library(error)) << error;
  }
  bool start_library(std::string &error)
  {
    const bool may_start = link->before_library_start(error);
    EXPECT_EQ(node_state(), "BACKUP\n");
    if (may_start) {
      link->library_started();
    }
    return may_start;
  }
  std::string standing() const { return read("cons/kesh.standing").substr(0, read("cons/kesh.standing").find('\n')); }

  std::filesystem::path at;
  watched &events;
  settings configured;
  store lines;
  std::atomic<node_role> role = node_role::follower;
  std::atomic<bool> is_full = false;
  int no_ops = 0;
  int restarts = 0;
  std::string stopped_for;
  std::vector<played_daemon *> to;
  std::mutex wire;
  std::unique_ptr<cluster_link> link;
};

class cluster_link_test : public store_testing::store_fixture
{
protected:
  void SetUp() override
  {
    store_fixture::SetUp();
    for (uint32_t node = 1; node <= 3; ++node) {
      nodes.push_back(std::make_unique<played_daemon>(directory / std::to_string(node), node, events));
    }
  }
  void TearDown() override
  {
    for (auto &one : nodes) {
      if (one->link) {
        one->link->stop();
      }
    }
    nodes.clear();
    store_fixture::TearDown();
  }
  /// Makes the links, then starts those of the numbers.
  void start(const std::vector<uint32_t> &numbers)
  {
    const std::vector<played_daemon *> all = {nodes[0].get(), nodes[1].get(), nodes[2].get()};
    for (played_daemon *one : all) {
      one->start(all);
    }
    for (const uint32_t number : numbers) {
      node(number).run();
    }
  }
  played_daemon &node(uint32_t number) { return *nodes[number - 1]; }
  template <typename predicate>
  void await(const predicate &is_so)
  {
    events.await(is_so);
  }

  watched events;
  std::vector<std::unique_ptr<played_daemon>> nodes;
};

const std::vector<library_entry> LOG = {{2, 9}, {1, 70}, {3, 4}};

}  // namespace

TEST_F(cluster_link_test, a_cluster_forms_when_all_were_heard_and_then_obeys_keepalived)
{
  for (auto &one : nodes) {
    one->empty_disk();
  }
  node(1).write("vrrp", "MASTER\n");
  start({1, 2});
  await([&] { return node(1).link->view().peers.size() == 1 && node(1).link->status_json()["vrrp"] == "MASTER"; });
  await([&] {
    return node(1).link->eligible().reason == "it is new to the cluster: it has not heard every other node yet: not 3";
  });
  EXPECT_EQ(node(1).standing(), "new");
  EXPECT_FALSE(node(1).link->may_submit().yes);
  EXPECT_EQ(node(1).node_state(), "BACKUP\n");

  node(3).run();
  await([&] { return node(1).standing() == "member" && node(2).standing() == "member"; });
  await([&] { return node(1).node_state() == "MASTER\n"; });
  EXPECT_TRUE(node(2).link->may_submit().yes);
  EXPECT_EQ(node(2).link->may_lead().reason, "keepalived has said nothing yet");
  EXPECT_EQ(node(1).restarts + node(2).restarts + node(3).restarts, 0) << "no id was used";

  node(1).write("node_state", "BACKUP\n");  // by somebody else
  await([&] { return node(1).node_state() == "MASTER\n"; });
  node(1).write("vrrp", "BACKUP\n");
  node(1).link->vrrp_changed();
  EXPECT_EQ(node(1).node_state(), "BACKUP\n") << "at once";
  node(2).write("vrrp", "MASTER\n");
  await([&] { return node(2).node_state() == "MASTER\n"; });
  node(2).link->library_stopped();
  EXPECT_EQ(node(2).node_state(), "BACKUP\n") << "at once";
  EXPECT_EQ(node(2).link->eligible().reason, "it is not started");

  // A restart before the first decision needs no more than a majority.
  for (auto &one : nodes) {
    one->link->stop();
  }
  start({1});
  EXPECT_EQ(node(1).link->eligible().reason, "too few of the others have said hello to it since it began");
  node(2).run();
  await([&] { return node(1).link->eligible().yes; });
}

// The leader holds up all when its disk is full. When all are, one has to lead: a new log may still find room.
TEST_F(cluster_link_test, a_node_without_room_leads_only_where_no_other_can)
{
  for (auto &one : nodes) {
    one->records(740, LOG);
    one->write("vrrp", one == nodes[0] ? "MASTER\n" : one == nodes[1] ? "BACKUP\n" : "STOP\n");
  }
  nodes[0]->is_full = true;
  start({1, 2, 3});
  await([&] { return node(1).link->eligible().reason.find("and node 2 could lead") != std::string::npos; });
  EXPECT_TRUE(node(1).link->may_lead().yes) << "keepalived may know better";
  node(2).is_full = true;
  await([&] { return node(1).link->eligible().yes && node(2).link->eligible().yes; });
}

TEST_F(cluster_link_test, an_emptied_node_joins_when_it_knows_more_than_it_forgot)
{
  for (auto &one : nodes) {
    one->records(740, LOG);
  }
  node(2).write("cons/rb_reg.745", "");  // a question of somebody who has died since
  start({1, 2, 3});
  await([&] {
    const auto peers = node(2).link->view().peers;
    return peers.size() == 2 && peers[0].last.decision == 740 && node(1).link->view().peers.size() == 2;
  });
  await([&] { return node(1).link->eligible().yes; });

  node(1).link->stop();
  node(1).empty_disk();
  node(1).start(node(1).to);
  node(1).run();
  await([&] { return node(1).link->view().peers.size() == 2; });
  EXPECT_FALSE(node(1).link->eligible().yes);
  EXPECT_EQ(node(1).standing(), "new");
  node(1).records(740, LOG);
  await([&] {
    const std::string reason = node(1).link->may_submit().reason;
    return reason == "it is new to the cluster: it knows decision 740, and others had to do with 745";
  });
  node(1).records(745, LOG, false);
  await([&] {
    const std::string reason = node(1).link->may_submit().reason;
    return reason == "it is new to the cluster: the library's log is not delivered to its end";
  });
  EXPECT_FALSE(node(1).link->view().disk_went_back) << "a new node has forgotten, and is known to have";
  node(1).records(745, LOG);
  await([&] { return node(1).standing() == "member"; });
  EXPECT_EQ(node(1).read("cons/msg_id"), le32(70 + UNKNOWN_IDS_MAX));
  EXPECT_EQ(node(1).restarts, 1);
  EXPECT_EQ(node(1).stopped_for, "");
}

// It has learnt again by the time of its first hello what was decided since, but not for whom it voted.
TEST_F(cluster_link_test, a_node_whose_disk_went_back_stops_and_stays_out)
{
  for (auto &one : nodes) {
    one->records(740, LOG);
  }
  start({1, 2, 3});
  await([&] { return node(2).link->view().peers.size() == 2; });
  node(1).link->stop();
  node(1).records(739, LOG);
  node(1).write("vrrp", "MASTER\n");
  node(1).start(node(1).to);
  node(1).link->start();
  node(1).records(741, LOG);
  std::string error;
  node(1).start_library(error);  // perhaps before it hears of it
  await([&] { return !node(1).stopped_for.empty(); });
  EXPECT_FALSE(node(1).link->eligible().yes);
  EXPECT_EQ(node(1).node_state(), "BACKUP\n");
  EXPECT_FALSE(node(1).start_library(error));
  EXPECT_NE(error, "");

  // The others' disks are as they were. One that changes while the daemon goes on needs nobody to tell.
  node(2).link->stop();
  node(2).start(node(2).to);
  node(2).run();
  await([&] { return node(2).link->eligible().yes; });
  node(2).link->library_stopped();
  node(2).records(739, LOG);
  EXPECT_FALSE(node(2).start_library(error));
  EXPECT_EQ(node(3).stopped_for, "");
}

TEST_F(cluster_link_test, the_leader_orders_no_ops_for_a_node_that_waits_for_a_state)
{
  for (auto &one : nodes) {
    one->records(740, LOG);
    apply_lines(one->lines, 1, one->configured.node_id == 2 ? 700 : 600);
    one->write("vrrp", "MASTER\n");
  }
  start({1, 2});
  await([&] { return node(1).node_state() == "MASTER\n"; });
  await([&] { return node(1).link->view().peers.size() == 1; });
  await([&] { return node(1).link->view().peers[0].verdict == agreement_verdict{agreement_kind::agrees, 512}; });
  const auto ids = node(1).link->view().peers[0].last.ids;
  ASSERT_TRUE(ids);
  EXPECT_EQ((*ids)[0], 700u) << "of its rows, not only of the log";

  node(2).lines.mark_incomplete("played");
  node(2).link->changed();
  EXPECT_EQ(node(2).node_state(), "BACKUP\n") << "at once";
  await([&] { return !node(1).link->view().peers[0].last.position.complete; });
  EXPECT_EQ(node(1).no_ops, 0) << "it does not lead";
  node(1).role = node_role::leader;
  await([&] { return node(1).no_ops == no_op_rule::NO_OPS_MAX; });
  node(1).link->stop();
  EXPECT_EQ(node(1).no_ops, static_cast<int>(no_op_rule::NO_OPS_MAX));
  EXPECT_EQ(node(1).node_state(), "BACKUP\n");
}

// Node 3 is lost for good. The others begin another generation with their stores.
TEST_F(cluster_link_test, a_reformed_cluster_is_led_by_the_node_that_applied_most)
{
  const std::string from = "blue, generation 0", to = "blue, generation 1";
  for (auto &one : nodes) {
    apply_lines(one->lines, 1, one->configured.node_id == 2 ? 700 : 600);
    if (one->configured.node_id == 1) {
      one->lines.mark_incomplete(RESTORED);  // a backup that a person has put there counts
    }
    one->lines.close();
    const std::string path = (one->at / "store").string();
    store_change_identity(path, "blue", from);
    store_change_identity(path, from, to);
    store_change_identity(path, from, to);
    EXPECT_THROW(store_change_identity(path, from, "red"), store_failure);
    EXPECT_EQ(one->lines.open({path, to, 1 << 20}, why), store_found::ready) << why;

    one->configured.generation = 1;
    one->configured.first_mac = "02:00:00:00:01:01";
    one->empty_disk();
    const standing_file file(one->at / "cons", configured_cluster(one->configured));
    EXPECT_TRUE(file.write({standing::reformed, {}, 1u << 2}, why)) << why;
    one->write("vrrp", "MASTER\n");
  }
  start({1, 2});
  EXPECT_TRUE(node(1).link->is_reformed());
  await([&] { return node(2).node_state() == "MASTER\n"; });
  await([&] {
    return node(1).link->may_lead().reason ==
           "the cluster is reformed: node 2 has applied more, 700 payloads, and goes first";
  });
  EXPECT_EQ(node(1).node_state(), "BACKUP\n");
  EXPECT_TRUE(node(1).link->may_submit().yes);
  EXPECT_EQ(node(1).read("cons/msg_id"), le32(700 + UNKNOWN_IDS_MAX)) << "of rows that only the other one has";

  node(2).records(1, {{2, 66237}});
  await([&] { return !node(2).link->is_reformed(); });
  EXPECT_EQ(node(2).standing(), "member");
}
