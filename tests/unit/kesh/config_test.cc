// The table of configuration keys, and what is made of it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "config/check.h"
#include "config/describe.h"
#include "config/nearest_name.h"
#include "exit_codes.h"

namespace
{

using kesh::config_key;

constexpr config_key HIDDEN[] = {{.name = "lab.trace"}};

std::vector<std::string> complaints(std::string_view text)
{
  std::vector<std::string> texts;
  for (const platform::config_complaint &one : kesh::config_complaints(text, HIDDEN)) {
    texts.push_back(one.text("f"));
  }
  return texts;
}

std::string file_of(const std::string &path)
{
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A row that contradicts itself would refuse what the documents say holds.
TEST(config_table, takes_its_own_fallbacks_and_examples)
{
  std::set<std::string_view> names;
  size_t count = 0;
  for (const kesh::config_section &section : kesh::config_sections()) {
    for (const config_key *key : section.keys) {
      SCOPED_TRACE(key->name);
      EXPECT_TRUE(names.insert(key->name).second);
      EXPECT_FALSE(key->help.empty());
      EXPECT_EQ(key->index_high != 0, key->name.find("[]") != std::string_view::npos);
      EXPECT_EQ(key->accepts == nullptr, key->form.empty());
      if (!key->fallback.empty()) {
        EXPECT_EQ(config_fault(*key, key->fallback), "");
      }
      count++;
    }
  }
  EXPECT_EQ(count, std::size(kesh::KESH_KEYS) + std::size(platform::PLATFORM_KEYS)) << "a key of no section";
}

TEST(config_example, is_the_file_of_the_tree_and_good)
{
  const std::string path = KESH_SOURCE_DIR "/kesh.conf.example";
  EXPECT_EQ(file_of(path), kesh::config_example()) << "after a change of a key: vx-kesh-conf example >" << path;
  EXPECT_EQ(kesh::config_faults(path, {}), std::vector<std::string>());
  EXPECT_EQ(kesh::config_example().find("lab."), std::string::npos);
  // What the example has behind a "#" is good, too, once it is set; interface and key file are a machine's own.
  std::string all = kesh::config_example();
  for (size_t at = 0; (at = all.find("\n#", at)) != std::string::npos; at++) {
    const bool is_machines =
        all.compare(at + 2, 19, "messaging.interface") == 0 || all.compare(at + 2, 14, "messaging.keys") == 0;
    if (all[at + 2] != ' ' && all[at + 2] != '\n' && !is_machines) {
      all.erase(at + 1, 1);
    }
  }
  EXPECT_EQ(complaints(all), std::vector<std::string>());
}

TEST(config_check, tells_each_fault_with_its_place_and_what_is_allowed)
{
  const struct {
    const char *text;
    std::vector<std::string> expected;
  } cases[] = {
      {"", {}},
      {"lab.trace = x\n", {}},
      {"cluster.nod_id = 1\n", {"f:1: unknown key cluster.nod_id; did you mean cluster.node_id?"}},
      {"mesaging.prot_base = 1\n", {"f:1: unknown key mesaging.prot_base; did you mean messaging.port_base?"}},
      {"messaging.node[2].adress = 1\n",
       {"f:1: unknown key messaging.node[2].adress; did you mean messaging.node[2].address?"}},
      {"messaging.nodes[].address = 1\n",
       {"f:1: unknown key messaging.nodes[].address; did you mean messaging.node[N].address?"}},
      {"lab.tracy = x\n", {"f:1: unknown key lab.tracy"}},
      {"messaging.node[17].address = 192.0.2.1\nmessaging.node[01].address = 192.0.2.2\n",
       {"f:1: messaging.node[17].address: the number in brackets is not one of 1 to 16",
        "f:2: messaging.node[01].address: the number in brackets is not one of 1 to 16"}},
      {"log.files = 1001\nlog.max_size = 16M\nlog.level = loud\nkesh.start = perhaps\nkesh.socket = sock\n",
       {"f:1: log.files: \"1001\" is not a whole number of files from 0 to 1000",
        "f:2: log.max_size: \"16M\" is not a whole number of bytes from 4096 to 1099511627776",
        "f:3: log.level: \"loud\" is not one of debug, info, warning, error",
        "f:4: kesh.start: \"perhaps\" is not one of yes, true, on, 1, no, false, off, 0",
        "f:5: kesh.socket: \"sock\" is not a path that begins with /"}},
      // What cannot be read does not hide what follows, nor does it count as set.
      {"log.files\nlog.files = 4\nlog.files = 5\nlog.queue = \"1\" 2\nlog.queue = x\n",
       {"f:1: log.files: no '='", "f:3: log.files: set already in line 2",
        "f:4: log.queue: text behind the closing quote",
        "f:5: log.queue: \"x\" is not a whole number of bytes from 0 to 1073741824"}},
      {"messaging.node[1].address = 224.0.0.1\nmessaging.node[2].address = 192.0.2.1\n"
       "messaging.node[3].address = 192.0.2.1\nmessaging.node[4].address = 127.1.0.5\n",
       {"f: messaging.node[5].address: 127.1.0.5 is the address of node 4",
        "f:1: messaging.node[1].address: \"224.0.0.1\" is not the IPv4 address of a node",
        "f:3: messaging.node[3].address: 192.0.2.1 is the address of node 2"}},
      {"cluster.supported = on\ncluster.node._s_ = 3\ncluster.node_id = 4\ncluster.node[0].mac = 02:00:00:00:00:0g\n",
       {"f:3: cluster.node_id: \"4\" is above the number of nodes, which cluster.node._s_ says is 3",
        "f:4: cluster.node[0].mac: \"02:00:00:00:00:0g\" is not a MAC address, six two-digit hexadecimal numbers with "
        "colons, not all 0"}},
      {"cluster.supported = yes\ncluster.node._s_ = 3\n",
       {"f: cluster.node_id: not set, but cluster.node._s_ is; kesh configure writes both",
        "f: cluster.node[0].mac: not set, but cluster.node._s_ is; kesh configure writes both"}},
      {"cluster.supported = no\ncluster.node._s_ = 3\n", {}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(complaints(c.text), c.expected) << c.text;
  }
}

TEST(config_check, command_tells_all_and_changes_nothing)
{
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("kesh_check." + std::to_string(getpid()));
  const struct {
    const char *text;
    int code;
    size_t lines;
  } cases[] = {{"kesh.start = no\r\n# end", kesh::EXIT_OK, 0},
               {"kesh.start = 7\nstate.max = 1\nx = 1\n", kesh::EXIT_CONFIG, 3},
               {"", kesh::EXIT_CONFIG, 1}};
  for (const auto &c : cases) {
    std::ofstream(path) << c.text;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(kesh::check_command(path, {}), c.code) << c.text;
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(static_cast<size_t>(std::count(told.begin(), told.end(), '\n')), c.lines) << told;
    EXPECT_EQ(testing::internal::GetCapturedStdout().empty(), c.code != kesh::EXIT_OK);
    EXPECT_EQ(file_of(path), c.text);
  }
  std::filesystem::remove(path);
}

TEST(nearest_name, is_one_that_may_have_been_meant)
{
  const std::vector<std::string> names = {"status", "start", "stop", "submit", "say"};
  const std::pair<const char *, const char *> cases[] = {
      {"stauts", "status"}, {"strat", "start"}, {"sumbit", "submit"}, {"sya", "say"},  {"stp", "stop"}, {"x", ""},
      {"journal", ""},      {"", ""},           {"sayyyyy", ""},      {"stop", "stop"}};
  for (const auto &[word, nearest] : cases) {
    EXPECT_EQ(kesh::nearest_name(word, names), nearest) << word;
  }
  EXPECT_EQ(kesh::spelling_distance("abcd", "acbd"), 1u);
  EXPECT_EQ(kesh::spelling_distance("abc", ""), 3u);
  EXPECT_EQ(kesh::spelling_distance("kitten", "sitting"), 3u);
}

}  // namespace
