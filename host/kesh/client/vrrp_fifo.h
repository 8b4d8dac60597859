/// keepalived's words in their order. It starts each notify script without waiting for the last one, so of two changes
/// in one moment the earlier word may come last; what it writes to its fifo has an order.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kesh
{

/// The state in a line of the fifo, `INSTANCE "name" STATE priority`: MASTER, BACKUP, FAULT or STOP. Nothing if the
/// line is of another instance than `instance` (empty: of any), of a group, or tells something else.
std::optional<std::string> vrrp_word_of(std::string_view line, std::string_view instance);

/// Hands each word to `note` until keepalived goes away, or ends this process with SIGTERM: then STOP. Returns an exit
/// code.
int vrrp_follow(const std::string &fifo, const std::string &instance,
                const std::function<int(const std::string &)> &note);

}  // namespace kesh
