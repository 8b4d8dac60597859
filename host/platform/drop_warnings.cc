#include "drop_warnings.h"

#include <string>

namespace platform
{
namespace
{

constexpr std::chrono::minutes AGAIN{1};

/// Null: it happens on good networks too.
const char *cause_of(drop_reason reason)
{
  switch (reason) {
  case drop_reason::stranger:
    return "the address is no node's (messaging.node[N].address), or another one's";
  case drop_reason::unsealed:
    return "they are not sealed, and the key file does not say \"accept plain\"";
  case drop_reason::unknown_key:
    return "they are sealed with a key that the key file does not have";
  case drop_reason::forged:
    return "the seal does not fit: another key of that identifier, or a forgery";
  case drop_reason::other_cluster:
    return "they are of another cluster, or generation (kesh configure, kesh reform)";
  case drop_reason::other_build:
    return "they are of another build number; nodes of different ones do not work together";
  default:
    return nullptr;
  }
}

}  // namespace

void drop_warnings::note(uint32_t node, uint32_t address, drop_reason reason)
{
  const char *const cause = cause_of(reason);
  if (cause == nullptr) {
    return;
  }
  kind &of = kinds_[node][static_cast<size_t>(reason)];
  const auto now = clock::now();
  ++of.since;
  if (of.said != clock::time_point() && now - of.said < AGAIN) {
    return;
  }
  const std::string from = address_text(address);
  const std::string who = node == 0 ? from : "node " + std::to_string(node) + " (" + from + ")";
  log_line(log_level::warning, "messaging: datagrams of " + who + " are dropped: " + cause + "; " +
                                   std::to_string(of.since) + " since this was last said");
  of = {.said = now, .since = 0};
}

}  // namespace platform
