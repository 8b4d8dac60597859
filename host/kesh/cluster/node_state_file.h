/// The two files of one word in /run: what the library reads to know whether it leads, and what keepalived said last.
#pragma once

#include <string>
#include <string_view>

namespace kesh
{

inline constexpr char NODE_STATE_PATH[] = "/var/run/node_state";
inline constexpr char VRRP_STATE_PATH[] = "/run/kesh.vrrp";

/// Replaces the file by one with this word, unless it holds it already. Readers see the old or the new word, also while
/// several processes write. Not flushed: the file does not outlive the machine, and a step down must not wait for a
/// disk. On failure returns false, `error` says why, and the file is as it was.
bool state_word_write(const std::string &path, std::string_view word, std::string &error);
/// Writes BACKUP, or empties the file, which needs no room: the library leads by the word MASTER alone. False: neither
/// can be done, `error` says why.
bool step_down(const std::string &path, std::string &error);
/// The first line, at most 31 bytes of it; empty if there is none.
std::string state_word_read(const std::string &path);

}  // namespace kesh
