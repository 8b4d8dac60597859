#include "line_record.h"

#include <gtest/gtest.h>

#include "file_record.h"

namespace
{

const kesh::journal_line LINE{{3, 0x1122334455667788, 0x99}, 2, "a line"};

// The payload crosses nodes: its bytes are fixed.
TEST(line_record, has_these_bytes)
{
  const std::string expected("KJL1\x03\x88\x77\x66\x55\x44\x33\x22\x11\x99\0\0\0\0\0\0\0\x02\0\0\0a line", 31);
  const std::string bytes = kesh::line_record_encode(LINE);
  ASSERT_EQ(bytes.size(), expected.size() + 4);
  EXPECT_EQ(bytes.substr(0, expected.size()), expected);
}

// What a crash, a foreign host or a flipped bit makes of a record must not get into the journal.
TEST(line_record, refuses_prefixes_and_flipped_bits)
{
  const std::string bytes = kesh::line_record_encode(LINE);
  kesh::journal_line decoded;
  for (size_t size = 0; size < bytes.size(); size++) {
    EXPECT_FALSE(kesh::line_record_decode(std::string_view(bytes).substr(0, size), decoded)) << size;
  }
  for (size_t bit = 0; bit < bytes.size() * 8; bit++) {
    std::string flipped = bytes;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
    EXPECT_FALSE(kesh::line_record_decode(flipped, decoded)) << bit;
  }
  EXPECT_EQ(decoded.tag.origin, 0);
  ASSERT_TRUE(kesh::line_record_decode(bytes, decoded));
  EXPECT_EQ(decoded.tag, LINE.tag);
  EXPECT_EQ(decoded.attempt, LINE.attempt);
  EXPECT_EQ(decoded.text, LINE.text);
}

// A right checksum does not make a line: origins have row numbers elsewhere, 0 means none.
TEST(line_record, refuses_fields_out_of_range)
{
  kesh::journal_line decoded;
  for (const kesh::journal_line &line : {kesh::journal_line{{0, 1, 1}, 1, ""}, kesh::journal_line{{17, 1, 1}, 1, ""},
                                         kesh::journal_line{{1, 1, 0}, 1, ""}, kesh::journal_line{{1, 1, 1}, 0, ""}}) {
    EXPECT_FALSE(kesh::line_record_decode(kesh::line_record_encode(line), decoded));
  }
}

// Every byte value survives the journal file, and none breaks its lines.
TEST(file_record, keeps_any_text)
{
  std::string text = "\\x41\\";
  for (int byte = 0; byte < 256; byte++) {
    text += static_cast<char>(byte);
  }
  std::string stored;
  kesh::file_record_append(stored, kesh::record_kind::line, 7, 8, {LINE.tag, 2, text});
  ASSERT_EQ(stored.find('\n'), stored.size() - 1);
  stored.pop_back();
  kesh::file_record record;
  ASSERT_TRUE(kesh::file_record_parse(stored, record));
  EXPECT_EQ(record.text, text);
  EXPECT_EQ(record.tag, LINE.tag);
  EXPECT_EQ(record.number, 7u);
  EXPECT_EQ(record.hash, 8u);
  stored[30] = static_cast<char>(stored[30] ^ 1);
  EXPECT_FALSE(kesh::file_record_parse(stored, record));
}

}  // namespace
