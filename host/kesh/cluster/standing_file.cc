#include "cluster/standing_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <system_error>

#include "atomic_file.h"

namespace kesh
{

namespace
{

constexpr const char *WITHOUT = "without";

std::string path_in(const std::string &records)
{
  return records + "/kesh.standing";
}

bool is_absent(const std::string &path)
{
  struct stat status;
  return stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

}  // namespace

std::string standing_text(const kept_standing &kept, const std::string &identity)
{
  std::string text = std::string(standing_name(kept.stands)) + '\n' + identity + '\n';
  for (const uint32_t id : kept.held) {
    text += std::to_string(id) + ' ';
  }
  text.back() = '\n';
  if (kept.without != 0) {
    text += WITHOUT;
    for (uint32_t node = 1; node <= HELLO_NODES_MAX; ++node) {
      text += (kept.without >> (node - 1) & 1) != 0 ? ' ' + std::to_string(node) : "";
    }
    text += '\n';
  }
  return text;
}

std::optional<kept_standing> standing_read(const std::string &text, const std::string &identity)
{
  std::istringstream lines(text);
  std::string name, of;
  std::getline(lines, name);
  std::getline(lines, of);
  const auto stands = standing_of(name);
  if (!stands) {
    return std::nullopt;
  }
  kept_standing kept{*stands, {}};
  for (uint32_t &id : kept.held) {
    lines >> id;
  }
  if (std::string word; lines >> word && word == WITHOUT) {
    for (uint32_t node = 0; lines >> node;) {
      kept.without |= node >= 1 && node <= HELLO_NODES_MAX ? 1u << (node - 1) : 0;
    }
  }
  // What is written again in the same way was read as it was meant.
  return text == standing_text(kept, identity) ? std::optional(kept) : std::nullopt;
}

standing_file::standing_file(const std::string &records, const cluster_identity &cluster)
    : path_(path_in(records)),
      identity_(cluster.name + ", generation " + std::to_string(cluster.generation) + ", " + cluster.first_mac)
{
}

std::optional<kept_standing> standing_file::read(std::string &error) const
{
  std::string text, why;
  if (!platform::file_read(path_, text, why)) {
    error = is_absent(path_) ? "" : path_ + ": " + why;
    return std::nullopt;
  }
  const auto kept = standing_read(text, identity_);
  error = kept ? ""
               : path_ + ": not of the cluster that is configured (" + identity_ +
                     "), or damaged: kesh configure "
                     "makes this node a new one";
  return kept;
}

bool standing_file::write(const kept_standing &kept, std::string &error) const
{
  std::string why;
  const bool done = platform::file_replace(path_, standing_text(kept, identity_), why);
  error = done ? error : path_ + ": " + why;
  return done;
}

bool forget_standing(std::string &error, const std::string &records)
{
  const std::string path = path_in(records);
  const bool done = unlink(path.c_str()) == 0 || errno == ENOENT;
  if (!done) {
    error = path + ": " + std::generic_category().message(errno);
  }
  return done;
}

}  // namespace kesh
