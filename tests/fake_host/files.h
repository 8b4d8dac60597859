/// The durable files of the node under test, and what can be wrong with them. The private view of the test makes
/// /flashdisk/cons and /run its own.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "wire.h"

namespace files
{

using wire::bytes;

inline constexpr const char *DIRECTORY = "/flashdisk/cons";

inline std::string path(const std::string &name)
{
  return std::string(DIRECTORY) + "/" + name;
}

inline bool exists(const std::string &name)
{
  return std::filesystem::exists(path(name));
}

inline void write(const std::string &name, const bytes &content)
{
  std::ofstream out(path(name), std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

/// A file that is there and cannot be opened, not even by root.
inline void write_unopenable(const std::string &name)
{
  std::filesystem::create_symlink(path(name), path(name));
}

inline bytes read(const std::string &name)
{
  std::ifstream in(path(name), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// Every file with its content; directories are empty.
inline std::map<std::string, bytes> all()
{
  std::map<std::string, bytes> out;
  for (const auto &item : std::filesystem::directory_iterator(DIRECTORY)) {
    const std::string name = item.path().filename();
    out[name] = item.is_regular_file() ? read(name) : bytes();
  }
  return out;
}

/// Makes every save of this file fail, also for root.
inline void block_saves(const std::string &name)
{
  std::filesystem::create_directory(path(name + ".tmp"));
}

inline void unblock_saves(const std::string &name)
{
  std::filesystem::remove(path(name + ".tmp"));
}

/// Removes everything.
inline void clear()
{
  std::filesystem::create_directories(DIRECTORY);
  for (const auto &item : std::filesystem::directory_iterator(DIRECTORY)) {
    std::filesystem::remove_all(item.path());
  }
  std::filesystem::remove("/run/node_state");
}

/// As keepalived reports it, by rename.
inline void set_node_state(const std::string &state)
{
  std::ofstream("/run/node_state.new") << state;
  std::filesystem::rename("/run/node_state.new", "/run/node_state");
}

}  // namespace files
