/// The table of configuration keys: those of the host layer and those of the daemon.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "config_key.h"
#include "metrics/listen_address.h"
#include "platform_keys.h"

namespace kesh
{

using platform::config_key;
using platform::config_kind;
using platform::is_absolute_path;

/// 1 to 64 letters, digits, dots, underscores and hyphens.
bool is_cluster_name(std::string_view text);
/// Six two-digit hexadecimal numbers with colons, not all 0.
bool is_mac_address(std::string_view text);

/// Taken, if it exists, while messaging.keys is not set.
inline constexpr char KEYS_PATH_DEFAULT[] = "/etc/kesh.keys";

inline constexpr int64_t CONFIG_NUMBER_MAX = int64_t{1} << 50;

inline constexpr config_key KESH_KEYS[] = {
    {.name = "cluster.supported",
     .section = "Cluster",
     .kind = config_kind::toggle,
     .fallback = "no",
     .help = "Whether this node may be a member of a cluster at all.",
     .example = "yes",
     .is_wanted = true},
    {.name = "cluster.durable_payloads",
     .section = "Cluster",
     .kind = config_kind::toggle,
     .fallback = "yes",
     .help = "yes: a payload is on the disks of a majority before it is ordered, and nothing that was acknowledged is "
             "lost when all nodes lose power at once. no: a crash may lose it. The same on all nodes; change it only "
             "while all are stopped and have delivered the same."},
    {.name = "cluster.name",
     .section = "Cluster",
     .help = "Name of the cluster.",
     .form = "a name of 1 to 64 letters, digits, dots, underscores and hyphens",
     .accepts = is_cluster_name,
     .is_configured = true},
    {.name = "cluster.generation",
     .section = "Cluster",
     .kind = config_kind::number,
     .fallback = "0",
     .help = "Another one for each new life of the cluster.",
     .low = 0,
     .high = CONFIG_NUMBER_MAX,
     .is_configured = true},
    {.name = "cluster.node[].mac",
     .section = "Cluster",
     .help = "MAC-shaped identity of node N + 1, counted from 0. The first one is the identity of the cluster.",
     .form = "a MAC address, six two-digit hexadecimal numbers with colons, not all 0",
     .accepts = is_mac_address,
     .index_low = 0,
     .index_high = platform::NODES_MAX - 1,
     .is_configured = true},
    {.name = "cluster.ipaddr",
     .section = "Cluster",
     .help = "Address of the cluster, stored for other programs.",
     .is_configured = true},
    {.name = "cluster.netmask", .section = "Cluster", .help = "Stored for other programs.", .is_configured = true},
    {.name = "cluster.gateway", .section = "Cluster", .help = "Stored for other programs.", .is_configured = true},
    {.name = "cluster.mtime",
     .section = "Cluster",
     .kind = config_kind::number,
     .help = "When the cluster was configured, in seconds since 1970. Stored for other programs.",
     .unit = "seconds",
     .low = 0,
     .high = CONFIG_NUMBER_MAX,
     .is_configured = true},

    {.name = "kesh.socket",
     .section = "Daemon",
     .fallback = "/run/kesh.sock",
     .help = "Control socket, readable for its owner only.",
     .form = "a path that begins with /",
     .accepts = is_absolute_path},
    {.name = "kesh.start",
     .section = "Daemon",
     .kind = config_kind::toggle,
     .fallback = "yes",
     .help = "yes: join the cluster when the daemon starts. no: wait for \"kesh start\"."},
    {.name = "metrics.listen",
     .section = "Daemon",
     .help =
         "Where a collector gets what \"kesh metrics\" prints: GET /metrics over HTTP. Whoever can connect may read "
         "it.",
     .form = "an IPv4 address, a colon and a port",
     .accepts = is_listen_address,
     .unset = "nowhere",
     .example = "127.0.0.1:9817"},

    {.name = "kesh.store",
     .section = "Store",
     .fallback = "/flashdisk/kesh.store",
     .help = "The journal of this node and all it needs to go on: an SQLite database, with files beside it that begin "
             "with the same name. It must be on a disk that survives a restart. Read it with any tool; only kesh may "
             "write it.",
     .form = "a path that begins with /",
     .accepts = is_absolute_path},
    {.name = "state.max",
     .section = "Store",
     .kind = config_kind::number,
     .fallback = "16777216",
     .help = "Size of the state that a node gets which was away for long: of more lines the oldest texts are left out. "
             "Once in 250 messages that much is sent through the network. The same on all nodes, from the first start "
             "on.",
     .unit = "bytes",
     .low = 64 << 10,
     .high = 1 << 30},
    {.name = "retention.lines",
     .section = "Store",
     .kind = config_kind::number,
     .fallback = "0",
     .help = "Older lines than so many are removed, but never the newest 600 payloads. 0: no limit. Each node may have "
             "limits of its own.",
     .unit = "lines",
     .low = 0,
     .high = CONFIG_NUMBER_MAX},
    {.name = "retention.bytes",
     .section = "Store",
     .kind = config_kind::number,
     .fallback = "0",
     .help = "The same by the size of the payloads. 0: no limit.",
     .unit = "bytes",
     .low = 0,
     .high = CONFIG_NUMBER_MAX},
    {.name = "retention.age_s",
     .section = "Store",
     .kind = config_kind::number,
     .fallback = "0",
     .help = "The same by age. 0: no limit.",
     .unit = "seconds",
     .low = 0,
     .high = CONFIG_NUMBER_MAX},
    {.name = "journal.file",
     .section = "Store",
     .fallback = "/flashdisk/journal",
     .help = "The journal of an earlier build, a text file. The store begins behind it if there is no store yet; the "
             "file stays.",
     .form = "a path that begins with /",
     .accepts = is_absolute_path},
};

consteval const config_key &kesh_key(std::string_view name)
{
  return platform::config_key_in(KESH_KEYS, name);
}

/// The keys of one section of the example file and of the manual page.
struct config_section {
  std::string_view name;
  std::vector<const config_key *> keys;
};

/// All keys that people see, in the order in which they are shown.
std::vector<config_section> config_sections();

}  // namespace kesh
