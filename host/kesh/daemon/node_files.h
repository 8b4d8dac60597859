/// The small files that show the state of the node. They are only read, for `kesh status` and before `kesh configure`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kesh
{

inline constexpr char CONS_DIRECTORY[] = "/flashdisk/cons";

struct last_decision {
  uint32_t number = 0;
  uint32_t entries = 0;
};

struct last_delivery {
  uint8_t sender = 0;
  uint32_t msg_id = 0;
};

/// Not set if the file is missing or too short.
std::optional<last_decision> last_decision_read();
std::optional<last_delivery> last_delivery_read();
/// The last message identifier that this node handed out.
std::optional<uint32_t> last_identifier_read();

/// What /var/run/node_state says, its first six characters; empty if it is missing.
std::string node_state_read();

/// Whether the directory of the durable files exists and can be written; if not, `error` says what to do.
bool cons_directory_usable(std::string &error);

}  // namespace kesh
