#include "config_key.h"
#include "platform.h"
#include "scratch.h"
#include "vx_host.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

namespace
{

std::string value_of(const char *key)
{
  char *value = nullptr;
  if (vx_cfg_get(&value, "%s", key) != 0) {
    return "(none)";
  }
  std::string copy = value;
  free(value);
  return copy;
}

std::string error_of(const scratch &dir, const std::string &text)
{
  std::string error;
  const std::string path = dir.write("bad.conf", text);
  EXPECT_FALSE(platform::config_load(path, error)) << text;
  return error.substr(0, path.size()) == path ? error.substr(path.size()) : "path is missing: " + error;
}

}  // namespace

// Everything an operator wrote must be there after a save, and what a value holds must come back as it was.
TEST(config, a_save_keeps_what_the_operator_wrote)
{
  const scratch dir;
  const std::string path = dir.write("node.conf", "# our cluster\n\n  cluster.mtime=7   # last change\n"
                                                  "odd = \"a\\\"b\\x41\" # quoted\nempty =\ngone = 1\n# end");
  chmod(path.c_str(), 0640);
  std::filesystem::create_symlink(path, dir.path("link.conf"));
  std::string error;
  ASSERT_TRUE(platform::config_load(dir.path("link.conf"), error)) << error;
  EXPECT_EQ(value_of("cluster.mtime"), "7");
  EXPECT_EQ(value_of("odd"), "a\"bA");
  EXPECT_EQ(value_of("empty"), "");
  EXPECT_EQ(value_of("none"), "(none)");

  const std::string awkward = "  # \"x\\ \n\t\x7f ";
  EXPECT_EQ(vx_cfg_set("12", "cluster.mtime"), 0);
  EXPECT_EQ(vx_cfg_set(nullptr, "gone"), 0);
  EXPECT_EQ(vx_cfg_set(awkward.c_str(), "node[%u].text", 3u), 0);
  EXPECT_EQ(vx_cfg_set_int(-5, "number"), 0);
  EXPECT_NE(vx_cfg_set("x", "not a key"), 0);
  // Meanwhile the operator edits the file.
  dir.write("node.conf", dir.read("node.conf") + "\nlate = edit\n");
  ASSERT_EQ(vx_cfg_save(1), 0);

  EXPECT_EQ(dir.read("node.conf"), "# our cluster\n\ncluster.mtime = 12   # last change\n"
                                   "odd = \"a\\\"b\\x41\" # quoted\nempty =\n# end\nlate = edit\n"
                                   "node[3].text = \"  # \\\"x\\\\ \\n\\x09\\x7f \"\nnumber = -5\n");
  EXPECT_TRUE(std::filesystem::is_symlink(dir.path("link.conf")));
  EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
  EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(path).permissions()), 0640u);
  ASSERT_TRUE(platform::config_load(path, error)) << error;
  EXPECT_EQ(value_of("node[3].text"), awkward);
}

TEST(config, a_save_that_fails_leaves_the_file_and_says_so)
{
  const scratch dir;
  const std::string path = dir.write("node.conf", "a = 1\n");
  std::string error;
  ASSERT_TRUE(platform::config_load(path, error));
  std::filesystem::create_directory(path + ".tmp");
  EXPECT_EQ(vx_cfg_set("2", "a"), 0);
  EXPECT_NE(vx_cfg_save(1), 0);
  EXPECT_EQ(dir.read("node.conf"), "a = 1\n");
  std::filesystem::remove(path + ".tmp");
  EXPECT_EQ(vx_cfg_save(1), 0) << "the change is still wanted";
  EXPECT_EQ(dir.read("node.conf"), "a = 2\n");
}

TEST(config, errors_name_line_key_and_reason)
{
  const scratch dir;
  EXPECT_EQ(error_of(dir, "a = 1\n\nkey value\n"), ":3: key: no '='");
  EXPECT_EQ(error_of(dir, "# c\n = 1\n"), ":2: no key in front of '='");
  EXPECT_EQ(error_of(dir, "a b = 1\n"), ":1: \"a b\": a key consists of letters, digits and . _ - [ ]");
  EXPECT_EQ(error_of(dir, "a = 1\nb = 1\na = 2\n"), ":3: a: set already in line 1");
  EXPECT_EQ(error_of(dir, "a = \"\\q\"\n"), ":1: a: bad escape; known are \\\\ \\\" \\n \\r \\t \\xHH");
  EXPECT_EQ(error_of(dir, "a = \"\\x1\"\n"), ":1: a: \\x needs two hexadecimal digits");
  EXPECT_EQ(error_of(dir, "a = \"open\n"), ":1: a: the closing quote is missing");
  EXPECT_EQ(error_of(dir, "a = \"b\" c\n"), ":1: a: text behind the closing quote");
  std::string error;
  EXPECT_FALSE(platform::config_load(dir.path("none"), error));
  EXPECT_EQ(error, dir.path("none") + ": No such file or directory");
  EXPECT_FALSE(platform::config_load(dir.path(""), error));
  EXPECT_FALSE(platform::config_load(dir.write("empty", ""), error));
  EXPECT_EQ(error, dir.path("empty") + ": the file is empty");
  // Nobody writes to it: a load that waits would wait for ever.
  ASSERT_EQ(mkfifo(dir.path("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(platform::config_load(dir.path("fifo"), error));
  EXPECT_EQ(error, dir.path("fifo") + ": not a regular file");
}

// Files from other systems and other editors either mean what they seem to mean or are refused.
TEST(config, files_of_other_editors_are_read_or_refused)
{
  const scratch dir;
  std::string error;
  const std::string long_value(100'000, 'x');
  const std::string path = dir.write("odd.conf", "\xef\xbb\xbf# mark\r\na = 1 \t\r\nb = \"2 \" \r\nc = " + long_value +
                                                     "\r\nd =\t4\t# four\r\ne = x\ty");
  ASSERT_TRUE(platform::config_load(path, error)) << error;
  const std::pair<const char *, std::string> expected[] = {
      {"a", "1"}, {"b", "2 "}, {"c", long_value}, {"d", "4"}, {"e", "x\ty"}};
  for (const auto &[key, value] : expected) {
    EXPECT_EQ(value_of(key), value);
  }
  ASSERT_TRUE(platform::config_load(dir.write("mark.conf", "\xef\xbb\xbfkey = 1\n"), error)) << error;
  EXPECT_EQ(value_of("key"), "1");

  EXPECT_EQ(error_of(dir, "a = 1\rb = 2\r"),
            ":1: a: a control character stands in the value; in quotes it may be written as \\xHH");
  EXPECT_EQ(error_of(dir, "# c\n\xef\xbb\xbfkey = 1\n"),
            ":2: \"\\xef\\xbb\\xbfkey\": a key consists of letters, digits and . _ - [ ]");
  EXPECT_EQ(error_of(dir, std::string("\xff\xfek\0=\0", 6)), ": written in UTF-16; save it as UTF-8");
  EXPECT_EQ(error_of(dir, "a = " + std::string(1 << 20, 'x')), ": larger than 1 MiB, which is no configuration");
}

// One word for yes must not mean no to the library and yes to the daemon.
TEST(config, a_toggle_has_the_same_words_everywhere)
{
  const scratch dir;
  constexpr platform::config_key TOGGLE = {.name = "t", .kind = platform::config_kind::toggle, .fallback = "yes"};
  const std::pair<const char *, int> cases[] = {
      {"yes", 1}, {"true", 1}, {"on", 1},   {"1", 1}, {"no", 0},    {"false", 0}, {"off", 0}, {"0", 0},      {"Yes", 2},
      {"y", 2},   {"", 2},     {"yes,", 2}, {"2", 2}, {"on, 1", 2}, {"01", 2},    {"no ", 0}, {"enabled", 2}};
  for (const auto &[word, meaning] : cases) {
    std::string error;
    const std::string path = dir.write("t.conf", std::string("t = ") + word + "\n");
    ASSERT_TRUE(platform::config_load(path, error)) << error;
    int told_library = 2;
    bool told_host = false;
    EXPECT_EQ(vx_cfg_is_enabled(&told_library, "t") == 0, meaning != 2) << word;
    EXPECT_EQ(told_library, meaning) << word;
    EXPECT_EQ(platform::config_toggle(TOGGLE, told_host, error), meaning != 2) << word;
    EXPECT_EQ(told_host, meaning == 1) << word;
    if (meaning == 2) {
      EXPECT_EQ(error, path + ":1: t: \"" + word + "\" is not one of yes, true, on, 1, no, false, off, 0");
    }
  }
}

TEST(config, numbers_are_read_whole_and_within_their_range)
{
  const scratch dir;
  std::string error;
  const std::string path = dir.write("node.conf", "n = 17\nbad = 1x\nhuge = 4294967296\nminus = -1\non = yes\n");
  ASSERT_TRUE(platform::config_load(path, error));
  using platform::config_key;
  constexpr auto NUMBER = platform::config_kind::number;
  int64_t number = 0;
  EXPECT_TRUE(platform::config_number(config_key{.name = "n", .kind = NUMBER, .low = 1, .high = 17}, number, error));
  EXPECT_EQ(number, 17);
  EXPECT_TRUE(
      platform::config_number(config_key{.name = "unset", .kind = NUMBER, .fallback = "5", .high = 16}, number, error));
  EXPECT_EQ(number, 5);
  EXPECT_FALSE(platform::config_number(config_key{.name = "n", .kind = NUMBER, .low = 1, .high = 16}, number, error));
  EXPECT_EQ(error, path + ":1: n: \"17\" is not a whole number from 1 to 16");
  EXPECT_FALSE(platform::config_number(config_key{.name = "bad", .kind = NUMBER, .unit = "bytes", .low = 1, .high = 16},
                                       number, error));
  EXPECT_EQ(error, path + ":2: bad: \"1x\" is not a whole number of bytes from 1 to 16");

  uint32_t value = 99;
  int32_t signed_value = 99;
  int enabled = 0;
  for (const char *key : {"bad", "huge", "minus", "unset", "on"}) {
    EXPECT_NE(vx_cfg_get_uint(&value, "%s", key), 0) << key;
  }
  EXPECT_EQ(value, 99u);
  EXPECT_EQ(vx_cfg_get_int(&signed_value, "minus"), 0);
  EXPECT_EQ(signed_value, -1);
  EXPECT_EQ(vx_cfg_is_enabled(&enabled, "on"), 0);
  EXPECT_EQ(enabled, 1);
  EXPECT_NE(vx_cfg_is_enabled(&enabled, "n"), 0);
}
