// The journal of an earlier build as the beginning of a store.
#include "store/journal_import.h"

#include <zlib.h>

#include <cstdio>

#include "store_fixture.h"

namespace
{

using namespace store_testing;

std::string record(char kind, uint64_t number, const std::string &hash, const std::string &rest)
{
  const std::string text = std::string(1, kind) + ' ' + std::to_string(number) + ' ' + hash + ' ' + rest;
  char sum[9];
  snprintf(sum, sizeof sum, "%08lx", crc32(0, reinterpret_cast<const Bytef *>(text.data()), uInt(text.size())));
  return std::string(sum) + ' ' + text + '\n';
}

class journal_import_test : public store_fixture
{
protected:
  std::optional<kesh::store_start> import(const std::string &content)
  {
    write_file(path("journal"), content);
    why.clear();
    return kesh::journal_import(path("journal"), {2, 7}, why);
  }

  const std::string h1 = "00000000000000a1", h2 = "00000000000000a2", tag = "2.00000000000000ff.1 1 ";
  const std::string one = record('L', 1, h1, tag + "first");
  const std::string base = record('S', 900, h1, "0.0000000000000000.0 0 0 0 0 ab");
  const std::string two = record('L', 2, h2, tag + "second \\x0a");
};

TEST_F(journal_import_test, gives_equal_journals_equal_starts)
{
  const auto start = import(one + record('R', 1, h1, tag + "first") + two);
  ASSERT_TRUE(start) << why;
  EXPECT_EQ(start->lines, 2u);
  EXPECT_EQ(start->taken_over, (kesh::library_entry{2, 7}));
  // Another file of the same journal: without the beginning, and with an end that a crash cut.
  const auto same = import(record('S', 1, h1, tag) + two + one.substr(0, 20));
  ASSERT_TRUE(same) << why;
  EXPECT_EQ(same->lines, 2u);
  EXPECT_EQ(same->hash, start->hash);
  EXPECT_EQ(import(base)->lines, 900u);
  EXPECT_NE(import(base + record('L', 901, h2, tag))->hash, import(base + record('L', 901, h1, tag))->hash);
  EXPECT_NE(import(base)->hash, import(one)->hash);

  // Numbers go on behind it, and the library too.
  kesh::store store;
  ASSERT_EQ(store.open(settings("a"), why), kesh::store_found::absent);
  store.create(*start);
  EXPECT_EQ(store.facts({2, 7}).taken_over, (kesh::library_entry{2, 7}));
  apply_lines(store, 1, 1);
  EXPECT_EQ(store.position().lines, 3u);
  EXPECT_EQ(store.facts({2, 7}).taken_over, std::nullopt);
  store.close();
  expect_sound(path("a"));
}

TEST_F(journal_import_test, refuses_damage_and_says_where)
{
  std::string flipped = one + two;
  flipped[one.size() + 30] = static_cast<char>(flipped[one.size() + 30] ^ 1);
  const std::string at_two = "journal is damaged at byte " + std::to_string(one.size());
  const struct {
    const char *what;
    std::string content, error;
  } cases[] = {{"a byte flipped, and a record behind it", flipped + record('L', 3, h1, tag), at_two},
               {"a line is missing", one + record('L', 3, h2, tag), at_two},
               {"another beginning within", one + base, at_two},
               {"a repeat that changes the hash", one + record('R', 1, h2, tag), at_two},
               {"no first line", two, "journal is damaged at byte 0"},
               {"more lines than there can be", record('S', 1ull << 63, h1, tag), "journal is damaged at byte 0"}};
  for (const auto &c : cases) {
    EXPECT_FALSE(import(c.content)) << c.what;
    EXPECT_NE(why.find(c.error), std::string::npos) << c.what << ": " << why;
  }
  write_file(path("journal.incomplete"), "");
  EXPECT_FALSE(import(one));
}

TEST_F(journal_import_test, is_done_once)
{
  const auto waits = [this] { return kesh::old_journal_waits(path("journal"), why); };
  EXPECT_FALSE(waits());
  EXPECT_EQ(why, "");
  write_file(path("journal"), "");
  EXPECT_FALSE(waits());
  write_file(path("journal"), "somebody's letters");
  EXPECT_FALSE(waits());
  EXPECT_NE(why, "");
  write_file(path("journal"), one);
  EXPECT_TRUE(waits());
  std::string error;
  ASSERT_TRUE(kesh::note_taken_over(path("journal"), error)) << error;
  EXPECT_FALSE(waits());
  EXPECT_EQ(why, "");
  EXPECT_EQ(read_file(path("journal")), one);
}

}  // namespace
