/// The subcommands that talk to a running daemon. Each prints its result, and returns an exit code.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kesh
{

/// `to_text` makes the screen for a person; nullptr: JSON is printed.
int status_command(const std::string &socket_path, std::string (*to_text)(const nlohmann::json &status));
enum class health_question {
  live,      ///< the daemon answers
  ready,     ///< this node takes part, and payloads are ordered
  eligible,  ///< keepalived may choose this node as MASTER
};

/// Prints one line. Returns EXIT_OK if the answer is yes, else EXIT_REFUSED, and the line says why; EXIT_UNREACHABLE if
/// no daemon answers.
int health_command(const std::string &socket_path, health_question asked, bool as_json);
/// Notes what keepalived says (MASTER, BACKUP, FAULT, STOP) in `state_path`, and tells the daemon if one runs.
int vrrp_command(const std::string &socket_path, const std::string &state_path, const std::string &word);
int say_command(const std::string &socket_path, const std::string &text);
int heard_command(const std::string &socket_path, bool follow);
/// start, leave, reinit or stop; returns when it is done, for stop when the daemon has ended, or after `timeout_s`.
int life_cycle_command(const std::string &socket_path, const std::string &operation, double timeout_s);
/// Reads the key file anew.
int reload_command(const std::string &socket_path);
int log_level_command(const std::string &socket_path, const std::string &level);

}  // namespace kesh
