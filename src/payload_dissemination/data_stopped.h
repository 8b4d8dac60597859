/// Whether the payload layer is stopped: its threads must end, and every wait must return. In its own header because
/// the table and the files read it too.
#pragma once

#include <atomic>

inline constinit std::atomic<bool> paxos_data_stopped{true};
