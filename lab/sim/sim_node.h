/// A node: what outlives its process, and the process that runs now.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "library_copy.h"
#include "scheduler.h"
#include "sim_disk.h"
#include "sim_network.h"

namespace sim
{

/// A message that the library sends again and again.
struct repeated_message {
  uint64_t id;
  uint32_t channel;
  uint32_t key;
  uint32_t to;
  int64_t period_us;
  datagram one;
};

struct open_file {
  sim_disk::file_ptr file;
  std::string path;
  size_t at = 0;
};

using receive_hook = void (*)(void *msg);

/// Datagrams that wait per channel; more are lost, as in the kernel.
inline constexpr size_t INBOX_MAX = 4000;

/// One process of a node, from its start to its end.
struct node_run : process {
  struct sim_node *home = nullptr;
  library_copy library;
  std::array<receive_hook, CHANNELS> hooks{};
  std::array<std::deque<datagram>, CHANNELS> inbox;
  std::vector<repeated_message> repeated;
  uint64_t last_message = 0;
  std::map<int, open_file> files;
  int last_file = 100;
  uint32_t open_calls = 0;                          ///< of vx_cons_distribute
  std::unordered_map<const void *, size_t> blocks;  ///< memory that the library has allocated
  uint64_t block_bytes = 0;                         ///< the sum of it

  bool is_initialised = false;
  bool is_starting = false;       ///< init or start runs
  bool is_started = false;        ///< start has returned 0, and no stop has begun
  bool was_stopped = false;       ///< stop has returned, and no start has begun
  uint32_t starts = 0;            ///< that have begun
  int64_t hook_until_us = 0;      ///< a hook runs, or ran, until then
  bool is_first_delivery = true;  ///< since start: the last payload may come once more
};

/// What the host's application keeps on the node's disk. It is durable when a hook returns.
struct application {
  std::vector<uint32_t> history;                  ///< submissions in the order of their delivery
  std::optional<std::vector<uint32_t>> arriving;  ///< a full state of which not all types have come
};

/// How the process of a node dies next: at a file operation, or as it sends a message.
struct death {
  uint64_t at_operation = 0;  ///< the nth from now; 0: not at one
  bool is_after = false;      ///< when the operation is done
  uint64_t at_send = 0;       ///< the nth message of the kind; 0: not at one
  message_kind kind{};
  uint32_t reached = 0;     ///< nodes that get this message, a bit each
  bool with_power = false;  ///< it loses what no sync has covered
  int64_t down_us = 0;
  uint32_t next_master = 0;  ///< who leads from then on; 0: as before
  uint64_t unopened = 0;     ///< so many files of registers cannot be opened by its next process
};

struct sim_node {
  uint32_t number = 0;
  sim_disk disk;
  std::map<std::string, std::string> config;
  application app;
  std::string vrrp = "BACKUP";
  std::unique_ptr<node_run> run;                ///< null: no process
  std::vector<std::unique_ptr<node_run>> past;  ///< their threads stand where they stood
  draw choices{0, 0};
  bool is_new = false;  ///< its disk was lost: it does not vote yet
  bool is_configured = false;
  /// Of a new node: the first top that each of the others told.
  std::array<std::optional<uint32_t>, NODES_MAX + 1> first_tops{};
  uint32_t asked_for = 0;              ///< greatest register that it was asked for
  int64_t joined_us = -3'600'000'000;  ///< when it last was new no more
  uint32_t ids_before = 0;             ///< the last identifier that it had handed out when its disk was lost
  std::array<uint32_t, NODES_MAX + 1> held_missing{};
  int64_t wall_offset_us = 0;   ///< wall clock minus monotonic clock
  int64_t deliver_hook_us = 0;  ///< a slow hook
  int64_t state_hook_us = 0;
  uint32_t state_bytes = 0;  ///< size of its state beside the history
  death dies;
};

}  // namespace sim
