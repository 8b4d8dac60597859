/// Whether the payload layer is stopped: its threads must end, every wait must return. A header of its own, for the
/// table and the files too look at it.
#pragma once

#include <atomic>

inline constinit std::atomic<bool> paxos_data_stopped{true};
