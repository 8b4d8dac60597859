/// Whether the disk of the library's records has room for payloads.
#pragma once

#include <cstdint>
#include <string>

namespace kesh
{

/// Why the library can save no payload in the directory: what is free there is below what it keeps for records and for
/// the next states, of which the last one had so many bytes. Empty: it can, or nobody knows. A daemon that has
/// not seen a state yet counts none. Any thread.
std::string no_room_in(const std::string &directory, uint64_t state_bytes);

}  // namespace kesh
