#include "vx_host_layer.h"

#include "platform.h"
#include "scratch.h"
#include "vx_host.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

namespace
{

int32_t number_of(const char *key)
{
  int32_t number = 0;
  vx_cfg_get_int(&number, "%s", key);
  return number;
}

// Of the refusal, which must leave the configuration as it was.
std::string refusal(const char *path, const vx_host_setting *settings)
{
  EXPECT_NE(vx_host_configure(path, settings), 0);
  EXPECT_EQ(number_of("kept"), 1);
  return vx_host_error();
}

}  // namespace

TEST(host_layer, refuses_a_bad_configuration_and_says_what_is_bad)
{
  const scratch dir;
  const vx_host_setting good[] = {{"kept", "1"}, {nullptr, nullptr}};
  const vx_host_setting blank[] = {{"kept", "2"}, {"no key", "1"}, {nullptr, nullptr}};
  const vx_host_setting null[] = {{"kept", "2"}, {"empty", nullptr}, {nullptr, nullptr}};
  const std::string long_key(256, 'k');
  const vx_host_setting too_long[] = {{long_key.c_str(), "1"}, {nullptr, nullptr}};
  ASSERT_EQ(vx_host_configure(nullptr, good), 0) << vx_host_error();
  EXPECT_STREQ(vx_host_error(), "");
  EXPECT_EQ(refusal(nullptr, blank), "no key: a key consists of letters, digits and . _ - [ ], at most 255");
  EXPECT_EQ(refusal(nullptr, null), "empty: has no value");
  EXPECT_NE(refusal(nullptr, too_long).find(": a key consists of"), std::string::npos);
  EXPECT_EQ(refusal(dir.path("none").c_str(), nullptr), dir.path("none") + ": No such file or directory");
}

// A host without a file gives all keys at each start. With one, its settings are saved there beside what it holds.
TEST(host_layer, is_configured_with_a_file_or_without)
{
  const scratch dir;
  const std::string path = dir.write("conf", "kept = 1 # by an operator\nchanged = 1\n");
  const vx_host_setting settings[] = {{"changed", "2"}, {nullptr, nullptr}};
  ASSERT_EQ(vx_host_configure(path.c_str(), settings), 0) << vx_host_error();
  EXPECT_EQ(vx_cfg_save(1), 0);
  EXPECT_EQ(dir.read("conf"), "kept = 1 # by an operator\nchanged = 2\n");
  ASSERT_EQ(vx_host_configure(nullptr, settings), 0) << vx_host_error();
  EXPECT_EQ(number_of("kept"), 0);
  EXPECT_EQ(vx_cfg_set("3", "changed"), 0);
  EXPECT_EQ(vx_cfg_save(1), 0);
  EXPECT_EQ(number_of("changed"), 3);
  EXPECT_EQ(dir.read("conf"), "kept = 1 # by an operator\nchanged = 2\n");
}

TEST(host_layer, reads_the_key_file_anew)
{
  const scratch dir;
  const std::string path = dir.write("keys", "seal plain\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  const vx_host_setting settings[] = {{"cluster.node_id", "1"}, {"messaging.keys", path.c_str()}, {nullptr, nullptr}};
  ASSERT_EQ(vx_host_configure(nullptr, settings), 0);
  ASSERT_EQ(vx_host_start(), 0) << vx_host_error();
  dir.write("keys", "seal 9 " + std::string(64, 'a') + "\n");
  EXPECT_EQ(vx_host_reload_keys(), 0) << vx_host_error();
  dir.write("keys", "seal 8\n");
  EXPECT_NE(vx_host_reload_keys(), 0);
  EXPECT_NE(std::string(vx_host_error()).find("line 1: expected an identifier"), std::string::npos) << vx_host_error();
  EXPECT_EQ(platform::messaging_read_statistics().seals_with, 9) << "the former keys stay";
  EXPECT_EQ(vx_host_stop(), 0);
}

TEST(host_layer, starts_stops_and_starts_again)
{
  const scratch dir;
  const std::string log = dir.path("log");
  const vx_host_setting nobody[] = {{"log.file", log.c_str()}, {nullptr, nullptr}};
  const vx_host_setting settings[] = {{"cluster.node_id", "1"}, {"log.file", log.c_str()}, {nullptr, nullptr}};
  ASSERT_EQ(vx_host_configure(nullptr, nobody), 0);
  EXPECT_NE(vx_host_start(), 0);
  EXPECT_STREQ(vx_host_error(), "configuration: cluster.node_id: not set");
  ASSERT_EQ(vx_host_configure(nullptr, settings), 0);
  for (const char *text : {"first life", "second life"}) {
    ASSERT_EQ(vx_host_start(), 0) << vx_host_error();
    EXPECT_EQ(vx_host_start(), 0) << "once is enough";
    void *const repeated = vx_msg_enqueue(vx_msg_allocate(20), 5, 0, 0x0100017f, -1, 1);
    EXPECT_NE(repeated, nullptr) << "messages can be sent";
    vx_log("%s\n", text);
    EXPECT_EQ(vx_host_stop(), 0) << vx_host_error();
    EXPECT_EQ(platform::messaging_read_statistics().queued, 0u);
    vx_log("between the lives\n");
  }
  EXPECT_EQ(vx_host_stop(), 0) << "harmless at any time";
  const std::string lines = dir.read("log");
  EXPECT_NE(lines.find("first life\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("second life\n"), std::string::npos) << lines;
  EXPECT_EQ(lines.find("between"), std::string::npos) << lines;
}
