/// `kesh alive`: for keepalived's check script. The library puts a sign of life into a queue once a second, for as long
/// as its leader watch runs; nobody else empties it, and a full queue takes no more signs.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace kesh
{

/// System V message queue of the signs.
inline constexpr key_t SIGN_OF_LIFE_KEY = 0x64387148;

/// Empties the queue. Prints one line. Returns EXIT_OK if the last sign is at most so old, EXIT_REFUSED if it is older,
/// EXIT_UNREACHABLE if there is no queue.
int alive_command(key_t queue_key, uint32_t max_age_s);

}  // namespace kesh
