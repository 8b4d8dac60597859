#include "log_levels.h"
#include "log_queue.h"
#include "platform.h"
#include "scratch.h"
#include "vx_host.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <vector>

namespace
{

void open_log(const scratch &dir, const std::string &level, const std::string &more = "")
{
  std::string error;
  const std::string text =
      "cluster.node_id = 3\nlog.level = " + level + "\nlog.file = " + dir.path("log") + "\n" + more;
  ASSERT_TRUE(platform::config_load(dir.write("conf", text), error)) << error;
  ASSERT_TRUE(platform::log_open(error)) << error;
}

// Of each line the node, and what follows the thread.
std::string texts(const scratch &dir)
{
  EXPECT_TRUE(platform::log_flush(std::chrono::seconds(10)));
  std::istringstream all(dir.read("log"));
  std::string result;
  std::string date, time, monotonic, node, thread, rest;
  while (all >> date >> time >> monotonic >> node >> thread && std::getline(all, rest)) {
    EXPECT_NE(std::stod(monotonic), 0);
    result += node + rest + '\n';
  }
  return result;
}

}  // namespace

TEST(log, lines_have_level_text_and_one_newline)
{
  const scratch dir;
  open_log(dir, "info");
  vx_log("id %u\n", 7u);
  vx_log("no newline");
  errno = ENOENT;
  vx_log_err("open(%s)", "x");
  EXPECT_EQ(errno, ENOENT);
  vx_log("%s\n", std::string(5000, 'x').c_str());
  platform::log_line(platform::log_level::debug, "filtered");
  EXPECT_EQ(texts(dir), "n3 info: id 7\nn3 info: no newline\nn3 error: open(x): No such file or directory\nn3 info: " +
                            std::string(1023, 'x') + "\n");
  ASSERT_TRUE(platform::log_set_level("error"));
  EXPECT_FALSE(platform::log_set_level("loud"));
  vx_log("filtered\n");
  EXPECT_EQ(texts(dir).find("filtered"), std::string::npos);
}

TEST(log, lines_of_the_library_matter_as_much_as_what_they_tell)
{
  using platform::log_level;
  const struct {
    const char *text;
    log_level level;
  } lines[] = {
      {"CONS: PAXOS: DECIDE (sender=1, batch_id=7)", log_level::debug},
      {"CONS: PAXOS DATA: DATA bcast (id=1/2, o=0, l=1400)", log_level::debug},
      {"CONS: CONSENSOUS: propose ... (batch_id=7, round=1)", log_level::debug},
      {"RB-REG: Trying to create an old register (4 <= 7)", log_level::debug},
      {"CONS: PAXOS: Entering Leader Mode", log_level::info},
      {"CONS: PAXOS DATA: payload (id=1/2) on disk is superseded - removed", log_level::info},
      {"CONS: PAXOS: unknown message type 9", log_level::warning},
      {"CONS: PAXOS DATA: data lost - skipped (id=1/2)", log_level::error},
      {"Isolating from cluster ...", log_level::error},
      {"store_write(): CRITICAL - write(/flashdisk/cons/msg_id.tmp) failed", log_level::error},
      {"something else", log_level::info},
  };
  for (const auto &line : lines) {
    EXPECT_EQ(platform::library_line_level(line.text), line.level) << line.text;
    EXPECT_EQ(platform::library_line_tells_loss(line.text),
              std::string_view(line.text).find("data lost") != std::string_view::npos);
  }
  EXPECT_EQ(platform::library_failure_level("store_delete(): unlink() failed", ENOENT), log_level::debug);
  EXPECT_EQ(platform::library_failure_level("store_delete(): unlink() failed", EIO), log_level::error);
  EXPECT_EQ(platform::library_failure_level("store_load(): open(x) failed", ENOENT), log_level::error);
}

// Whoever logs does not wait for the disk; what finds no room is counted, and told once there is room.
TEST(log, a_slow_disk_delays_nobody)
{
  platform::mutex guard;
  platform::condition changed;
  bool is_stalled = true;
  bool has_begun = false;
  std::vector<std::string> written;
  const auto write = [&](const platform::log_record &line) {
    const platform::lock_scope scope(guard);
    has_begun = true;
    changed.signal_all();
    while (is_stalled) {
      changed.wait(guard);
    }
    written.push_back(line.text);
  };
  platform::log_queue queue(10, write, [](uint64_t count) {
    return platform::log_record{{}, platform::log_level::warning, std::to_string(count) + " dropped"};
  });
  const auto push = [&](const std::string &text) { queue.push({{}, platform::log_level::info, text}); };
  push("first");
  {
    const platform::lock_scope scope(guard);
    while (!has_begun) {
      changed.wait(guard);
    }
  }
  push("second");
  push("dropped");
  push("third");
  EXPECT_FALSE(queue.flush(std::chrono::milliseconds(1)));
  {
    const platform::lock_scope scope(guard);
    is_stalled = false;
    changed.signal_all();
  }
  EXPECT_TRUE(queue.flush(std::chrono::seconds(10)));
  EXPECT_EQ(queue.dropped(), 2u);
  push("last");
  EXPECT_TRUE(queue.flush(std::chrono::seconds(10)));
  ASSERT_EQ(written.size(), 4u);
  EXPECT_EQ(written[1], "second");
  EXPECT_EQ(written[2], "2 dropped");
  EXPECT_EQ(written[3], "last");
}

TEST(log, its_file_may_be_renamed)
{
  const scratch dir;
  open_log(dir, "info");
  vx_log("before");
  ASSERT_TRUE(platform::log_flush(std::chrono::seconds(10)));
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator{});
  };
  const auto open_before = descriptors();
  std::string error;
  for (int i = 0; i < 20; ++i) {
    std::filesystem::rename(dir.path("log"), dir.path("old"));
    ASSERT_TRUE(platform::log_reopen(error)) << error;
  }
  vx_log("after");
  EXPECT_EQ(texts(dir), "n3 info: after\n");
  EXPECT_EQ(descriptors(), open_before);
}

TEST(log, files_rotate_at_their_size)
{
  const scratch dir;
  open_log(dir, "info", "log.max_size = 4096\nlog.files = 2\n");
  for (int i = 0; i < 500; ++i) {
    vx_log("line %d\n", i);
  }
  EXPECT_TRUE(platform::log_flush(std::chrono::seconds(10)));
  EXPECT_TRUE(std::filesystem::exists(dir.path("log.2")));
  EXPECT_FALSE(std::filesystem::exists(dir.path("log.3")));
  EXPECT_LE(std::filesystem::file_size(dir.path("log.1")), 4096u);
}

TEST(log, a_bad_level_is_refused_with_its_place)
{
  const scratch dir;
  std::string error;
  const std::string path = dir.write("conf", "\nlog.level = loud\n");
  ASSERT_TRUE(platform::config_load(path, error));
  EXPECT_FALSE(platform::log_open(error));
  EXPECT_EQ(error, path + ":2: log.level: \"loud\" is not one of debug, info, warning, error");
}
