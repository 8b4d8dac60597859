#include "cluster/host_channel.h"

#include <cstring>

#include "bytes.h"
#include "message.h"
#include "messaging_settings.h"
#include "vx_host.h"

namespace kesh
{

using platform::ENVELOPE_SIZE;
using platform::WORD_SIZE;

host_message host_message_of(const void *msg)
{
  const char *const envelope = static_cast<const char *>(msg) + WORD_SIZE;
  byte_reader in({envelope, ENVELOPE_SIZE});
  in.bytes(sizeof(uint64_t) + sizeof(uint32_t));
  const auto name = in.le<uint32_t>();
  const auto size = in.le<uint32_t>();
  const uint32_t node = name >> 24;
  const bool is_node = node >= 1 && node <= platform::NODES_MAX && name == platform::node_name(node);
  return {is_node ? node : 0, {envelope + ENVELOPE_SIZE, size}};
}

bool host_channel::send(uint32_t node, uint32_t key, std::string_view bytes) const
{
  std::string envelope;
  put_le(envelope, cluster_id_);
  put_le(envelope, build_);
  put_le(envelope, platform::node_name(node_));
  put_le(envelope, static_cast<uint32_t>(bytes.size()));
  void *const msg = vx_msg_allocate(static_cast<uint32_t>(envelope.size() + bytes.size()));
  if (msg == nullptr) {
    return false;
  }
  char *const data = static_cast<char *>(msg) + WORD_SIZE;
  std::memcpy(data, envelope.data(), envelope.size());
  std::memcpy(data + envelope.size(), bytes.data(), bytes.size());
  const uint32_t destination = node == TO_ALL ? platform::GROUP_ADDRESS : platform::node_name(node);
  return vx_msg_enqueue(msg, CHANNEL, key, destination, 0, 0) != nullptr;
}

}  // namespace kesh
