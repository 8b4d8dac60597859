/// What the library keeps on a node's disk, as far as the simulator reads it. docs/wire-format.md has the layouts.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "common/le_bytes.h"
#include "sim_disk.h"

namespace sim
{

inline constexpr const char *RECORDS = "/flashdisk/cons";
inline constexpr const char *DECIDE_FILE = "/flashdisk/cons/paxos_decide";
inline constexpr const char *DELIVER_FILE = "/flashdisk/cons/paxos_deliver";
inline constexpr const char *MSG_ID_FILE = "/flashdisk/cons/msg_id";
inline constexpr const char *REGISTER_FILE = "/flashdisk/cons/rb_reg.";  // and its number

/// The record's first word; 0 if there is none.
inline uint32_t number_in(const sim_disk &disk, const char *path)
{
  const sim_disk::file_ptr file = disk.find(path);
  return file != nullptr && file->bytes.size() >= 4 ? get_le32(file->bytes.data()) : 0;
}

/// The register whose file has this path; 0: it is none, or a temporary one.
inline uint32_t register_of(const std::string &path)
{
  uint32_t id = 0;
  char rest = 0;
  return std::sscanf(path.c_str(), "/flashdisk/cons/rb_reg.%u%c", &id, &rest) == 1 ? id : 0;
}

struct payload_name {
  uint32_t sender = 0;
  uint32_t id = 0;
  auto operator<=>(const payload_name &) const = default;
};

inline std::string payload_path(const payload_name &of)
{
  return "/flashdisk/cons/payloads/" + std::to_string(of.sender) + "." + std::to_string(of.id);
}

/// The payload whose file has this path. False: it is none, or a temporary one.
inline bool payload_of(const std::string &path, payload_name &of)
{
  char rest = 0;
  return std::sscanf(path.c_str(), "/flashdisk/cons/payloads/%u.%u%c", &of.sender, &of.id, &rest) == 2;
}

/// Whether the log in the node's record names the payload.
inline bool is_in_log(const sim_disk &disk, const payload_name &one)
{
  const sim_disk::file_ptr file = disk.find(DECIDE_FILE);
  if (file == nullptr || file->bytes.size() != 1258) {
    return false;
  }
  const uint8_t *at = file->bytes.data() + 8;
  for (uint32_t left = std::min(get_le32(file->bytes.data() + 4), 250u); left > 0; --left, at += 5) {
    if (at[0] == one.sender && get_le32(at + 1) == one.id) {
      return true;
    }
  }
  return false;
}

inline std::vector<uint32_t> registers_on(const sim_disk &disk)
{
  std::vector<uint32_t> found;
  for (const std::string &name : disk.list(RECORDS)) {
    if (const uint32_t id = register_of(std::string(RECORDS) + "/" + name); id != 0) {
      found.push_back(id);
    }
  }
  return found;
}

}  // namespace sim
