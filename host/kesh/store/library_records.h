/// The library's records of a node, read and changed while the library does not run.
///
///   paxos_decide     1258 bytes, little-endian: number of the decision u32, number of entries u32 (0 to 250),
///                    then the entries, 5 bytes each
///   paxos_deliver    5 bytes: the last entry delivered here; zero: none
#pragma once

#include <optional>
#include <string>

#include "store/fit.h"

namespace kesh
{

/// Nothing, with `error` set, if paxos_decide is absent, damaged or of another size. If only paxos_deliver is, `error`
/// is set too, and nothing is said to be delivered.
std::optional<library_records> library_records_read(const std::string &directory, std::string &error);

/// The first entry of the log, none if it is empty or cannot be read. For hooks: needs little stack.
library_entry library_log_start(const std::string &directory);

/// Lets the library begin with the state at the head of its log: paxos_deliver becomes zero, durably. Call it only
/// while the library does not run. On failure returns false and sets `error`.
bool forget_delivered(const std::string &directory, std::string &error);

}  // namespace kesh
