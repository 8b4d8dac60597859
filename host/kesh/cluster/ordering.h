/// Whether payloads are ordered, as this node sees it, and if not why. Pure: what is known goes in, a sentence comes
/// out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cluster/peers.h"

namespace kesh
{

struct ordering_peer {
  uint32_t node = 0;
  uint32_t age_ms = 0;  ///< of its last hello
  node_role role = node_role::stopped;
  standing stands = standing::member;
  uint32_t decision = 0;
  difference differs = difference::none;
};

struct ordering_facts {
  uint32_t node = 0;
  uint32_t node_count = 0;
  node_role role = node_role::stopped;
  standing stands = standing::member;
  std::string isolated;    ///< since when, and by which file: " since 10:15:31 (...)"; may be empty
  std::string stays_out;   ///< why it takes no part at all; empty: it does
  std::string no_network;  ///< why it cannot be heard at all; empty: it can
  std::string no_room;     ///< why its disk takes no payload; empty: it does
  std::string not_yet;     ///< why it may not lead yet; empty: nothing is in the way
  bool is_complete = true;
  bool is_barred = false;
  uint32_t decision = 0;
  std::vector<ordering_peer> peers;  ///< those that were heard, strangers too
  uint64_t oldest_wait_s = 0;        ///< of a submission of this node
};

struct ordering {
  std::vector<std::string> obstacles;  ///< empty: payloads are ordered
  std::vector<std::string> notes;      ///< what else a person wants to know; nothing that stops the order
  uint32_t leader = 0;                 ///< the only node that leads; 0: none, or several

  bool operator==(const ordering &) const = default;
};

ordering ordering_of(const ordering_facts &known);

/// "ordering", "ordering; NOTE; ..", or "not ordering: OBSTACLE; ..; NOTE; ..".
std::string ordering_text(const ordering &of);
/// The obstacles alone, empty if there is none.
std::string obstacles_text(const ordering &of);

}  // namespace kesh
