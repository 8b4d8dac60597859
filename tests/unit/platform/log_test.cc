#include "platform.h"
#include "scratch.h"
#include "vx_host.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

namespace
{

void open_log(const scratch &dir, const std::string &level, const std::string &more = "")
{
  std::string error;
  const std::string text = "log.level = " + level + "\nlog.file = " + dir.path("log") + "\n" + more;
  ASSERT_TRUE(platform::config_load(dir.write("conf", text), error)) << error;
  ASSERT_TRUE(platform::log_open(error)) << error;
}

// The texts of the lines, without time and thread.
std::string texts(const scratch &dir)
{
  std::string all = dir.read("log");
  std::string result;
  for (size_t at = 0; at < all.size(); at = all.find('\n', at) + 1) {
    const size_t end = all.find('\n', at);
    const size_t text = all.find_first_not_of("0123456789-:. ", at);
    result += all.substr(text, end - text + 1);
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
  EXPECT_EQ(texts(dir), "info: id 7\ninfo: no newline\nerror: open(x): No such file or directory\ninfo: " +
                            std::string(1023, 'x') + "\n");
  open_log(dir, "error");
  vx_log("filtered\n");
  EXPECT_EQ(texts(dir).find("filtered"), std::string::npos);
}

TEST(log, files_rotate_at_their_size)
{
  const scratch dir;
  open_log(dir, "info", "log.max_size = 4096\nlog.files = 2\n");
  for (int i = 0; i < 500; ++i) {
    vx_log("line %d\n", i);
  }
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
  EXPECT_EQ(error, path + ":2: log.level: \"loud\" is none of debug, info, warning, error");
}
