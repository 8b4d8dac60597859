/// Where this node's network is: its own address, and the interface of the group. Both may come late, go, and come back
/// on another interface.
#pragma once

#include "messaging_settings.h"

#include <string>

namespace platform
{

struct own_network {
  unsigned interface = 0;  ///< index of the group's interface; 0: there is none now
  std::string name;        ///< of that interface
  std::string fault;       ///< why this node has no network; empty: it has
};

/// As the kernel has it now.
own_network find_own_network(const messaging_settings &settings);

}  // namespace platform
