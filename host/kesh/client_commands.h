/// The subcommands that talk to a running daemon. Each prints its result, and returns an exit code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "load.h"

namespace kesh
{

struct journal_options {
  uint64_t from = 1;
  bool follow = false;
  bool tags = false;
};

int status_command(const std::string &socket_path, bool as_json);
int journal_command(const std::string &socket_path, const journal_options &options);
int say_command(const std::string &socket_path, const std::string &text);
int heard_command(const std::string &socket_path, bool follow);
int start_command(const std::string &socket_path);
int leave_command(const std::string &socket_path);
int reinit_command(const std::string &socket_path);
/// Returns once the daemon has ended.
int stop_command(const std::string &socket_path);
/// `hook`: deliver or state.
int slow_command(const std::string &socket_path, const std::string &hook, uint32_t wait_ms);
/// Returns EXIT_OK if every line was acknowledged.
int load_command(const std::string &socket_path, const load_options &options, bool as_json);
/// No nodes: all are heard again.
int block_command(const std::string &socket_path, const std::vector<uint32_t> &nodes);

}  // namespace kesh
