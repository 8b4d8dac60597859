/// Whether the disk of the library's records has room for payloads.
#pragma once

#include <cstdint>
#include <string>

namespace kesh
{

/// Why the library can save no payload in the directory: less is free there than `reserve`, which it leaves for
/// records and states. Empty: it can, or nobody knows. Any thread.
std::string no_room_in(const std::string &directory, uint64_t reserve);

}  // namespace kesh
