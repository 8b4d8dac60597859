/// One record of the journal file: a line of text that an operator can read with less, guarded by a checksum.
///
///   CRC KIND NUMBER HASH TAG ATTEMPT TEXT
///
///   CRC      CRC-32 of the rest of the line, 8 hexadecimal digits
///   KIND     see below
///   NUMBER   lines applied so far, this one included
///   HASH     running hash over them, 16 hexadecimal digits
///   TAG      node.life.sequence, life in 16 hexadecimal digits
///   ATTEMPT  the attempt that was delivered
///   TEXT     \\ for a backslash, \xHH for control bytes but the tab
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "line_record.h"

namespace kesh
{

enum class record_kind : char {
  line = 'L',         ///< a line, applied
  repeated = 'R',     ///< its tag was known, with another attempt: not applied
  doubled = 'D',      ///< its tag and attempt were known: a fault of the delivery; not applied
  redelivered = 'A',  ///< as doubled, but it was the last before a restart: no fault
  base = 'S',         ///< first record of a file that came from the cluster
};

struct file_record {
  record_kind kind = record_kind::line;
  uint64_t number = 0;
  uint64_t hash = 0;
  line_tag tag;
  uint32_t attempt = 0;
  std::string text;
};

/// Appends the record, newline included.
void file_record_append(std::string &to, record_kind kind, uint64_t number, uint64_t hash, const journal_line &line);

/// Reads one record, given without its newline. False if it is damaged.
bool file_record_parse(std::string_view from, file_record &record);

/// The tag as it stands in the file.
std::string tag_text(const line_tag &tag);

/// The text with backslashes and control bytes escaped, and back. The second is false for a bad escape.
void text_escape(std::string &to, std::string_view text);
bool text_unescape(std::string_view from, std::string &text);

/// `value` in hexadecimal, filled up with zeros to `digits`.
std::string hex_text(uint64_t value, int digits);

}  // namespace kesh
