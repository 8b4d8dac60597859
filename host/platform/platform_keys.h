/// The configuration keys that the host layer itself reads.
#pragma once

#include <cstdint>

#include "config_key.h"
#include "message.h"

namespace platform
{

inline constexpr uint32_t NODES_MAX = 16;

/// An absolute path.
bool is_absolute_path(std::string_view text);
/// The IPv4 address of one host.
bool is_node_address(std::string_view text);
/// An IPv4 address, or what may be the name of an interface, which need not exist yet. Empty: that of the node's
/// address.
bool is_interface(std::string_view text);

inline constexpr config_key PLATFORM_KEYS[] = {
    {.name = "cluster.node_id",
     .section = "Cluster",
     .kind = config_kind::number,
     .help = "Number of this node.",
     .low = 1,
     .high = NODES_MAX,
     .is_configured = true},
    {.name = "cluster.node._s_",
     .section = "Cluster",
     .kind = config_kind::number,
     .help = "Number of nodes. 0: no cluster is configured.",
     .low = 0,
     .high = NODES_MAX,
     .is_configured = true},

    {.name = "log.level",
     .section = "Log",
     .kind = config_kind::choice,
     .fallback = "info",
     .help =
         "What is logged. debug adds what each decision brings. \"kesh log-level\" changes it while the daemon runs.",
     .words = "debug, info, warning, error"},
    {.name = "log.file",
     .section = "Log",
     .help = "The log file. SIGHUP opens it anew.",
     .unset = "standard error",
     .example = "/var/log/kesh.log"},
    {.name = "log.max_size",
     .section = "Log",
     .kind = config_kind::number,
     .fallback = "16777216",
     .help = "The log file is rotated at this size.",
     .unit = "bytes",
     .low = 4096,
     .high = int64_t{1} << 40},
    {.name = "log.files",
     .section = "Log",
     .kind = config_kind::number,
     .fallback = "4",
     .help = "So many rotated log files are kept.",
     .unit = "files",
     .low = 0,
     .high = 1000},
    {.name = "log.queue",
     .section = "Log",
     .kind = config_kind::number,
     .fallback = "4194304",
     .help = "A thread of its own writes the lines, so that a slow disk delays nobody. At most so many bytes of lines "
             "wait for it; what comes beyond that is dropped and counted. 0: each line is written before whoever logs "
             "it goes on.",
     .unit = "bytes",
     .low = 0,
     .high = int64_t{1} << 30},

    {.name = "messaging.port_base",
     .section = "Messages between the nodes",
     .kind = config_kind::number,
     .fallback = "17480",
     .help = "First UDP port: channel N uses this port + N. The channels are 3 to 7. The same on all nodes.",
     .low = 1024,
     .high = 65535 - (CHANNEL_FIRST + CHANNEL_COUNT - 1)},
    {.name = "messaging.node[].address",
     .section = "Messages between the nodes",
     .help = "Real address of node N, the same on all nodes.",
     .form = "the IPv4 address of a node",
     .accepts = is_node_address,
     .index_low = 1,
     .index_high = NODES_MAX,
     .unset = "127.1.0.N, for a cluster on one machine",
     .example = "192.0.2.N"},
    {.name = "messaging.group",
     .section = "Messages between the nodes",
     .kind = config_kind::choice,
     .fallback = "224.0.0.81",
     .help = "Multicast group of what is for all nodes. none: it goes to each of them, for networks without multicast. "
             "The same on all nodes.",
     .words = "224.0.0.81, none"},
    {.name = "messaging.keys",
     .section = "Messages between the nodes",
     .help = "File of the keys that messages are sealed with, readable for its owner only. \"kesh reload\" and SIGHUP "
             "read it anew.",
     .form = "a path that begins with /",
     .accepts = is_absolute_path,
     .unset = "/etc/kesh.keys, and if that does not exist nothing is sealed",
     .example = "/etc/kesh.keys"},
    {.name = "messaging.interface",
     .section = "Messages between the nodes",
     .help = "Interface of the multicast group.",
     .form = "an IPv4 address, or the name of an interface",
     .accepts = is_interface,
     .unset = "the interface of this node's address",
     .example = "eth0"},
    {.name = "messaging.multicast_ttl",
     .section = "Messages between the nodes",
     .kind = config_kind::number,
     .fallback = "1",
     .help = "How many networks a multicast may cross. 1: it stays in the network of the node.",
     .low = 0,
     .high = 255},
    {.name = "messaging.interval_ms",
     .section = "Messages between the nodes",
     .kind = config_kind::number,
     .fallback = "100",
     .help = "Unit of the time after which a message is repeated.",
     .unit = "milliseconds",
     .low = 1,
     .high = 60'000},
    {.name = "messaging.receive_buffer",
     .section = "Messages between the nodes",
     .kind = config_kind::number,
     .fallback = "8388608",
     .help = "Receive buffer of each socket. The kernel's limit net.core.rmem_max should be as high.",
     .unit = "bytes",
     .low = 65536,
     .high = 1 << 30},
};

consteval const config_key &platform_key(std::string_view name)
{
  return config_key_in(PLATFORM_KEYS, name);
}

}  // namespace platform
