/// `kesh journal`: prints lines as the daemon streams them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kesh
{

/// A row of the operation "journal", tab-separated: NUMBER N HASH TAG ATTEMPT AT TEXT.
struct journal_row {
  uint64_t line = 0;
  uint64_t n = 0;         ///< the payload it came with
  std::string_view hash;  ///< 16 digits: two nodes agree up to here if theirs are equal
  std::string_view tag;   ///< node.life.sequence
  uint32_t node = 0;
  std::string_view life;
  uint64_t sequence = 0;
  uint32_t attempt = 0;
  int64_t at = 0;  ///< seconds since 1970, when this node wrote it
  std::string_view escaped_text;
  std::string text;
};

/// The views point into `from`. False if it is no such row.
bool journal_row_parse(std::string_view from, journal_row &row);

enum class journal_form { text, tags, json };

/// The row as it is printed, with its newline.
std::string journal_row_text(const journal_row &row, journal_form form);

struct journal_options {
  uint64_t since = 1;
  bool follow = false;
  journal_form form = journal_form::text;
};

int journal_command(const std::string &socket_path, const journal_options &options);

}  // namespace kesh
