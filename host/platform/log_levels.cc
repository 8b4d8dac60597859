#include "log_levels.h"

#include <cerrno>

namespace platform
{

namespace
{

struct rule {
  enum class place { start, anywhere };

  place where;
  std::string_view words;
  log_level level;
};

constexpr std::string_view PAYLOAD_LOST = "data lost - skipped";

// The first one that fits.
constexpr rule RULES[] = {
    {rule::place::anywhere, PAYLOAD_LOST, log_level::error},
    {rule::place::start, "Isolating from cluster", log_level::error},
    {rule::place::anywhere, "already hashed. This should never happen!", log_level::error},
    {rule::place::anywhere, "corrupted message set", log_level::warning},
    {rule::place::anywhere, "unknown message type", log_level::warning},
    {rule::place::anywhere, "Cannot send message to keepalived", log_level::warning},
    {rule::place::anywhere, "Leader Mode", log_level::info},
    {rule::place::anywhere, "removed", log_level::info},
    {rule::place::anywhere, "PAXOS started", log_level::info},
    {rule::place::anywhere, "Reset PAXOS", log_level::info},
    {rule::place::anywhere, "Cluster node initialized", log_level::info},
    {rule::place::start, "CONS: ", log_level::debug},
    {rule::place::start, "RB-REG: ", log_level::debug},
    {rule::place::anywhere, "config variable not set or invalid", log_level::error},
    {rule::place::anywhere, "Cannot ", log_level::error},
    {rule::place::anywhere, "(): ", log_level::error},
};

}  // namespace

log_level library_line_level(std::string_view text)
{
  for (const rule &one : RULES) {
    if (one.where == rule::place::start ? text.starts_with(one.words)
                                        : text.find(one.words) != std::string_view::npos) {
      return one.level;
    }
  }
  return log_level::info;
}

bool library_line_tells_loss(std::string_view text)
{
  return text.find(PAYLOAD_LOST) != std::string_view::npos;
}

log_level library_failure_level(std::string_view text, int error)
{
  return error == ENOENT && text.find("unlink()") != std::string_view::npos ? log_level::debug : log_level::error;
}

}  // namespace platform
