#include "journal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

namespace
{

namespace fs = std::filesystem;

class journal_test : public testing::Test
{
protected:
  void SetUp() override
  {
    std::string name = (fs::temp_directory_path() / "kesh_journal_XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
  }
  void TearDown() override { fs::remove_all(directory); }

  std::unique_ptr<kesh::journal> open(const std::string &name = "journal", uint64_t keep = 1000)
  {
    auto result = std::make_unique<kesh::journal>();
    if (!result->open({(directory / name).string(), keep, 1 << 20}, error)) {
      return nullptr;
    }
    result->expect_redelivery();
    return result;
  }

  static kesh::journal_line line(uint64_t sequence, uint32_t attempt = 1)
  {
    static const std::string text = "text of a line";
    return {{2, 77, sequence}, attempt, text};
  }

  static void apply(kesh::journal &lines, uint64_t first, uint64_t last)
  {
    for (uint64_t i = first; i <= last; i++) {
      lines.apply(line(i));
    }
  }

  static std::string state_of(kesh::journal &lines)
  {
    uint8_t *bytes = nullptr;
    uint32_t size = 0;
    EXPECT_TRUE(lines.encode_state(&bytes, &size));
    const std::string state(reinterpret_cast<char *>(bytes), size);
    free(bytes);
    return state;
  }

  fs::path directory;
  std::string error;
};

void expect_same(const kesh::journal_status &a, const kesh::journal_status &b)
{
  EXPECT_EQ(a.lines, b.lines);
  EXPECT_EQ(a.hash, b.hash);
}

// A crash tears the last record at any byte: it goes, all before stays.
TEST_F(journal_test, cuts_a_torn_end)
{
  auto lines = open();
  apply(*lines, 1, 2);
  const auto before = lines->status();
  const auto size_before = fs::file_size(directory / "journal");
  lines->apply(line(3));
  lines.reset();
  std::ifstream file(directory / "journal", std::ios::binary);
  const std::string whole((std::istreambuf_iterator<char>(file)), {});
  for (size_t size = whole.size() - 1; size >= size_before; size--) {
    std::ofstream(directory / "torn", std::ios::binary) << whole.substr(0, size);
    auto cut = open("torn");
    ASSERT_NE(cut, nullptr) << error;
    expect_same(cut->status(), before);
    EXPECT_EQ(fs::file_size(directory / "torn"), size_before);
  }
}

// Damage before the end is no torn write: cutting there would lose lines without a word.
TEST_F(journal_test, refuses_damage_before_the_end)
{
  apply(*open(), 1, 3);
  std::fstream file(directory / "journal", std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(20);
  file.put('#');
  file.close();
  EXPECT_EQ(open(), nullptr);
  EXPECT_NE(error.find("damaged at byte 0"), std::string::npos) << error;
}

// Neither a repeated attempt nor a fault is applied; the counters tell them apart, also after restarts.
TEST_F(journal_test, tells_repeated_doubled_and_redelivered_apart)
{
  auto lines = open();
  apply(*lines, 1, 3);
  const auto clean = lines->status();
  lines->apply(line(2, 2));  // repeated
  lines->apply(line(2, 2));  // doubled
  lines->apply(line(3, 1));  // doubled
  lines = nullptr;
  lines = open();
  lines->apply(line(3, 1));  // the last one before the restart
  lines->apply(line(3, 1));  // doubled: not the first any more
  lines = nullptr;
  lines = open();
  lines->apply(line(1, 1));  // doubled: the first, but not the last one of before
  const auto status = lines->status();
  expect_same(status, clean);
  EXPECT_EQ(status.repeated, 1u);
  EXPECT_EQ(status.doubled, 4u);
  EXPECT_EQ(status.redelivered, 1u);
}

// A node that is new, behind, ahead or astray ends with the journal of the cluster, and knows all its tags.
TEST_F(journal_test, is_brought_to_a_state)
{
  auto source = open("source", 10);
  apply(*source, 1, 12);
  source->apply(line(100, 3));
  const std::string state = state_of(*source);
  const struct {
    const char *name;
    uint64_t first, last;
    uint64_t first_line;
  } cases[] = {
      {"new", 1, 0, 4}, {"behind_far", 1, 2, 4}, {"behind", 1, 8, 1}, {"ahead", 1, 20, 4}, {"astray", 5, 12, 4}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    auto lines = open(c.name);
    apply(*lines, c.first, c.last);
    lines->adopt(state);
    for (int restarts = 0; restarts < 2; restarts++) {
      expect_same(lines->status(), source->status());
      EXPECT_EQ(lines->status().first_line, c.first_line);
      lines = nullptr;
      lines = open(c.name);
    }
    lines->apply(line(1, 2));
    lines->apply(line(100, 3));
    EXPECT_EQ(lines->status().repeated, 1u);
    expect_same(lines->status(), source->status());
    lines->adopt({});
    EXPECT_EQ(lines->status().lines, 0u);
  }
}

// A state that is cut short or changed must not empty or change the journal: the node leaves instead.
TEST_F(journal_test, refuses_a_damaged_state)
{
  auto source = open("source");
  apply(*source, 1, 3);
  const std::string state = state_of(*source);
  kesh::journal_state decoded;
  for (size_t size = 0; size < state.size(); size++) {
    EXPECT_FALSE(kesh::journal_state_decode(std::string_view(state).substr(0, size), decoded)) << size;
  }
  auto lines = open("lines");
  apply(*lines, 1, 5);
  const auto before = lines->status();
  bool told = false;
  lines->on_failure = [&told] { told = true; };
  lines->adopt(std::string_view(state).substr(0, state.size() - 1));
  EXPECT_TRUE(lines->failed() && told);
  EXPECT_FALSE(lines->repair());
  expect_same(lines->status(), before);
}

// A disk that refuses a state for a while costs nothing once repair() succeeds; until then a mark stays on disk.
TEST_F(journal_test, repairs_what_could_not_be_written)
{
  auto source = open("source", 2);
  apply(*source, 1, 5);
  auto lines = open();
  fs::create_directory(directory / "journal.tmp");  // where the new file would be written
  lines->adopt(state_of(*source));
  lines->apply(line(6));
  source->apply(line(6));
  EXPECT_TRUE(lines->failed());
  EXPECT_TRUE(fs::exists(directory / "journal.incomplete"));
  EXPECT_FALSE(lines->repair());
  fs::remove(directory / "journal.tmp");
  ASSERT_TRUE(lines->repair());
  EXPECT_FALSE(fs::exists(directory / "journal.incomplete"));
  lines = nullptr;
  expect_same(open()->status(), source->status());
}

}  // namespace
