/// Where a node is connected to the fabric.
#pragma once

#include "datagram.h"

namespace fabric
{

/// What waits for a node that does not read, as in a kernel's receive buffer; what comes on top is lost.
inline constexpr size_t PORT_QUEUE_MAX_BYTES = 8 << 20;

class port
{
public:
  port() = default;
  virtual ~port() = default;
  port(const port &) = delete;
  port &operator=(const port &) = delete;

  virtual const char *kind() const = 0;
  /// Takes what `from` sent. Never waits for the node. False: no room.
  virtual bool put(uint32_t from, const datagram_ptr &one) = 0;
  virtual size_t queued_bytes() const { return 0; }
};

}  // namespace fabric
