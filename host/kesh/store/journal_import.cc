#include "store/journal_import.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

#include "atomic_file.h"
#include "bytes.h"

namespace kesh
{

namespace
{

// More than any cluster applies. A file that claims more is damaged.
constexpr uint64_t LINES_MAX = INT64_MAX;

struct record {
  char kind = 0;
  uint64_t number = 0;
  uint64_t hash = 0;
};

/// Cuts the next word, up to a space, off the front.
std::string_view next_word(std::string_view &from)
{
  const size_t end = from.find(' ');
  const std::string_view word = from.substr(0, end);
  from.remove_prefix(end == std::string_view::npos ? from.size() : end + 1);
  return word;
}

template <typename number>
bool read_number(std::string_view word, int base, number &value)
{
  const char *end = word.data() + word.size();
  const auto result = std::from_chars(word.data(), end, value, base);
  return !word.empty() && result.ec == std::errc() && result.ptr == end;
}

bool record_parse(std::string_view line, record &to)
{
  uint32_t sum = 0;
  if (!read_number(next_word(line), 16, sum) ||
      sum != crc32_z(0, reinterpret_cast<const Bytef *>(line.data()), line.size())) {
    return false;
  }
  const std::string_view kind = next_word(line);
  to.kind = kind.size() == 1 ? kind[0] : '\0';
  return std::string_view("LRDAS").find(to.kind) != std::string_view::npos &&
         read_number(next_word(line), 10, to.number) && read_number(next_word(line), 16, to.hash);
}

/// Whether it can come behind `last`; `count` records are before it.
bool follows(const record &next, const record &last, uint64_t count)
{
  switch (next.kind) {
  case 'S':
    return count == 0 && next.number <= LINES_MAX;
  case 'L':
    return next.number == last.number + 1;
  default:
    return next.number == last.number && next.hash == last.hash;
  }
}

/// Whether a whole record comes later: then what is damaged is not a cut end.
bool has_record_behind(std::ifstream &file)
{
  std::string line;
  record found;
  while (std::getline(file, line)) {
    if (!file.eof() && record_parse(line, found)) {
      return true;
    }
  }
  return false;
}

bool exists(const std::string &path)
{
  return access(path.c_str(), F_OK) == 0;
}

}  // namespace

bool old_journal_waits(const std::string &path, std::string &why)
{
  why.clear();
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    why = errno == ENOENT ? "" : path + ": " + strerror(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    why = path + " is no regular file";
    return false;
  }
  if (status.st_size == 0 || exists(path + ".taken-over")) {
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  char head[12] = "";
  file.read(head, sizeof head - 1);
  const bool is_ours = std::strspn(head, "0123456789abcdef") == 8 && head[8] == ' ' &&
                       std::strchr("LRDAS", head[9]) != nullptr && head[10] == ' ';
  if (!is_ours) {
    why = path + " is no journal of kesh: give journal.file another value, or move it away";
  }
  return is_ours;
}

std::optional<store_start> journal_import(const std::string &path, const library_entry &delivered, std::string &error)
{
  if (exists(path + ".incomplete")) {
    error = path + " lacks lines, as " + path + ".incomplete says: move both away; the node gets all from the others";
    return std::nullopt;
  }
  constexpr uint64_t HASH_START = 0xcbf29ce484222325u;
  record last{'S', 0, HASH_START};
  record next;
  std::ifstream file(path, std::ios::binary);
  std::string line;
  uint64_t at = 0;
  for (uint64_t count = 0; std::getline(file, line); ++count) {
    const bool is_cut = file.eof();  // no newline ends it
    const bool is_whole = !is_cut && record_parse(line, next);
    if (is_whole ? !follows(next, last, count) : has_record_behind(file)) {
      error = path + " is damaged at byte " + std::to_string(at) + ": move it away; the node gets all from the others";
      return std::nullopt;
    }
    if (!is_whole) {
      break;
    }
    at += line.size() + 1;
    last = next;
  }
  if (file.bad() || (!file.eof() && file.fail())) {
    error = path + " cannot be read: " + strerror(errno);
    return std::nullopt;
  }
  std::string bytes = "journal";
  put_le(bytes, last.number);
  put_le(bytes, last.hash);
  hasher sum;
  sum.add(bytes);
  return store_start{.hash = sum.finish(), .lines = last.number, .taken_over = delivered};
}

bool note_taken_over(const std::string &path, std::string &error)
{
  std::string why;
  return !old_journal_waits(path, why) ||
         platform::file_replace(path + ".taken-over", "The store goes on behind this journal.\n", error);
}

}  // namespace kesh
