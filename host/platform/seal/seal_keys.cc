#include "seal/seal_keys.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <system_error>
#include <vector>

#include "unique_fd.h"

namespace platform
{
namespace
{

constexpr std::string_view PLAIN = "plain";
constexpr off_t FILE_MAX = 64 << 10;

std::vector<std::string_view> words_of(std::string_view line)
{
  constexpr std::string_view BLANKS = " \t\r";
  std::vector<std::string_view> words;
  line = line.substr(0, line.find('#'));
  for (size_t at = line.find_first_not_of(BLANKS); at != std::string_view::npos;) {
    const size_t end = std::min(line.find_first_of(BLANKS, at), line.size());
    words.push_back(line.substr(at, end - at));
    at = line.find_first_not_of(BLANKS, end);
  }
  return words;
}

std::optional<uint8_t> parse_identifier(std::string_view text)
{
  uint8_t id = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), id);
  return fault == std::errc() && end == text.data() + text.size() && id != 0 ? std::optional(id) : std::nullopt;
}

std::optional<seal_key> parse_key(std::string_view text)
{
  seal_key key{};
  if (text.size() != 2 * key.size()) {
    return std::nullopt;
  }
  for (size_t i = 0; i < key.size(); ++i) {
    const char *const digits = text.data() + 2 * i;
    if (std::from_chars(digits, digits + 2, key[i], 16).ptr != digits + 2) {
      return std::nullopt;
    }
  }
  return key;
}

/// Takes one line. Returns what is wrong with it, or nothing.
const char *take_line(const std::vector<std::string_view> &words, seal_keys &to, bool &has_seal)
{
  const bool seals = words[0] == "seal";
  if (!seals && words[0] != "accept") {
    return "a line begins with seal or accept";
  }
  if (seals && std::exchange(has_seal, true)) {
    return "a second line says seal";
  }
  if (words.size() == 2 && words[1] == PLAIN) {
    to.accepts_plain = true;
    return nullptr;
  }
  const auto id = words.size() == 3 ? parse_identifier(words[1]) : std::nullopt;
  if (!id) {
    return "expected an identifier from 1 to 255 and a key, or plain";
  }
  const auto key = parse_key(words[2]);
  if (!key) {
    return "a key has 64 hexadecimal digits";
  }
  if (!to.known.emplace(*id, *key).second) {
    return "a second key with this identifier";
  }
  if (seals) {
    to.seals_with = id;
  }
  return nullptr;
}

bool fail(const std::string &name, const std::string &why, std::string &error)
{
  error = name + ": " + why;
  return false;
}

}  // namespace

bool seal_keys_parse(std::string_view text, const std::string &name, seal_keys &to, std::string &error)
{
  seal_keys read;
  read.accepts_plain = false;
  bool has_seal = false;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    const auto words = words_of(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (words.empty()) {
      continue;
    }
    if (const char *const why = take_line(words, read, has_seal)) {
      return fail(name, "line " + std::to_string(number) + ": " + why, error);
    }
  }
  if (!has_seal) {
    return fail(name, "no line says seal: which key is this node to send with?", error);
  }
  to = std::move(read);
  return true;
}

bool seal_keys_load(const std::string &path, seal_keys &to, std::string &error)
{
  const unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) {
    return fail(path, std::generic_category().message(errno), error);
  }
  if (!S_ISREG(status.st_mode) || status.st_size > FILE_MAX) {
    return fail(path, "is no key file", error);
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return fail(path, "others may read or change it: chmod 600", error);
  }
  std::string text(static_cast<size_t>(status.st_size), '\0');
  const ssize_t size = pread(file.get(), text.data(), text.size(), 0);
  if (size < 0) {
    return fail(path, std::generic_category().message(errno), error);
  }
  text.resize(static_cast<size_t>(size));
  return seal_keys_parse(text, path, to, error);
}

std::string seal_key_generate()
{
  seal_key key;
  if (getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size())) {
    return {};
  }
  constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : key) {
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 15];
  }
  return text;
}

}  // namespace platform
