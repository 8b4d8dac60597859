// The process's messaging service behind vx_msg_* and platform::messaging_*.
#include "messaging.h"
#include "vx_host.h"

namespace platform
{
namespace
{

// Never deleted: library threads may still call while the process exits.
messaging &service()
{
  static messaging *const only = new messaging;
  return *only;
}

}  // namespace

bool messaging_start(std::string &error)
{
  messaging_settings settings;
  return messaging_read_settings(settings, error) && service().start(settings, error);
}

void messaging_stop()
{
  service().stop();
}
messaging_statistics messaging_read_statistics()
{
  return service().statistics();
}
std::string messaging_network_fault()
{
  return service().network_fault();
}
bool messaging_reload_keys(std::string &error)
{
  seal_keys keys;
  if (!messaging_read_keys(keys, error)) {
    return false;
  }
  service().set_keys(keys);
  return true;
}
void messaging_set_filter(message_filter *filter)
{
  service().set_filter(filter);
}
void messaging_expect(uint64_t cluster_id, uint32_t build)
{
  service().expect(cluster_id, build);
}
void messaging_block(uint32_t node_mask)
{
  service().block(node_mask);
}

const char *drop_reason_name(drop_reason reason)
{
  const char *const names[] = {"stranger",      "foreign",     "damaged",          "unsealed",
                               "unknown_key",   "forged",      "replayed",         "unconfirmed",
                               "no_hook",       "blocked",     "receive_overflow", "send_failed",
                               "other_cluster", "other_build", "filtered_in",      "filtered_out"};
  return names[static_cast<size_t>(reason)];
}

}  // namespace platform

using namespace platform;

void *vx_msg_allocate(uint32_t size)
{
  message_ptr made = message_new(size);
  return made ? made.release()->object() : nullptr;
}

// Only a line of the log is allocated on these paths. If that fails, the message counts as lost.
void *vx_msg_enqueue(void *msg, uint32_t channel, uint32_t msg_key, uint32_t destination, int32_t repeat,
                     uint32_t interval)
{
  if (msg == nullptr) {
    return nullptr;
  }
  try {
    return service().enqueue(message_ptr(message_of(msg)), channel, msg_key, destination, repeat, interval);
  } catch (...) {
    return nullptr;
  }
}

int vx_msg_dequeue(void *handle, uint32_t channel, uint32_t msg_key, uint32_t)
{
  try {
    service().dequeue(handle, channel, msg_key);
    return 0;
  } catch (...) {
    return -1;
  }
}

void vx_msg_register_recv_hook(void (*hook)(void *msg), uint32_t channel)
{
  try {
    service().register_hook(hook, channel);
  } catch (...) {
    // There was no memory for a line of the log.
  }
}

void vx_msg_unregister_recv_hook(void (*hook)(void *msg))
{
  try {
    service().unregister_hook(hook);
  } catch (...) {
    // Only the first use of the service allocates.
  }
}
