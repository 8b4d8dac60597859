/// Where a node is connected to the fabric.
#pragma once

#include "datagram.h"

namespace fabric
{

class port
{
public:
  port() = default;
  virtual ~port() = default;
  port(const port &) = delete;
  port &operator=(const port &) = delete;

  /// Never waits for the node. False: no room.
  virtual bool put(const datagram &one) = 0;
};

}  // namespace fabric
