/// Messages of the host's own channel, 7. They have the envelope of the library's.
#pragma once

#include <cstdint>
#include <string_view>

namespace kesh
{

struct host_message {
  uint32_t sender = 0;  ///< node, as its envelope says; 0: no node's
  std::string_view bytes;
};

/// For a receive hook: of a message that messaging handed over.
host_message host_message_of(const void *msg);

class host_channel
{
public:
  static constexpr uint32_t CHANNEL = 7;
  static constexpr uint32_t TO_ALL = 0;

  host_channel(uint64_t cluster_id, uint32_t build, uint32_t node) : cluster_id_(cluster_id), build_(build), node_(node)
  {
  }

  /// To a node, 1 to 16, or to all; once. `key`: as message.h says. False: it was not sent. Any thread; waits for
  /// nothing.
  bool send(uint32_t node, uint32_t key, std::string_view bytes) const;

private:
  const uint64_t cluster_id_;
  const uint32_t build_;
  const uint32_t node_;
};

}  // namespace kesh
