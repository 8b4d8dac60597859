#include "service/clmsg.h"

#include <cstring>

#include "common/cons_mutex.h"
#include "common/le_bytes.h"
#include "service/entry_gate.h"
#include "service/envelope.h"
#include "service/host_hook.h"
#include "vx_host.h"

namespace
{

struct clmsg_state {
  entry_gate gate{false};
  cons_mutex clmsg_lock{lock_rank::leaf};  // held while the hook runs
  vx_cons_clmsg_hook hook CONS_GUARDED_BY(clmsg_lock) = nullptr;
};
constinit clmsg_state clmsg;

void set_hook(vx_cons_clmsg_hook hook)
{
  cons_lock lock(clmsg.clmsg_lock);
  clmsg.hook = hook;
}

}  // namespace

void clmsg_init()
{
  set_hook(nullptr);
  clmsg.gate.open();
  vx_msg_register_recv_hook(clmsg_recv, CLMSG_CHANNEL);
}

void clmsg_cleanup()
{
  clmsg.gate.close();
  vx_msg_unregister_recv_hook(clmsg_recv);
  clmsg.gate.wait_empty();
  set_hook(nullptr);
}

void clmsg_register_hook(uint32_t index, vx_cons_clmsg_hook hook)
{
  if (index == 0) {
    set_hook(hook);
  }
}

void clmsg_bcast(uint32_t type, const uint8_t *data, uint32_t length)
{
  if (length > UINT32_MAX - CLMSG_HDR_SIZE) {
    return;
  }
  uint8_t *message = cons_msg_new(nullptr, static_cast<uint32_t>(CLMSG_HDR_SIZE + length));
  if (message == nullptr) {
    return;
  }
  uint8_t *payload = cons_msg_payload(message);
  put_le32(payload, type);
  put_le32(payload + 4, length);
  if (data != nullptr && length > 0) {
    std::memcpy(payload + CLMSG_HDR_SIZE, data, length);
  } else {
    std::memset(payload + CLMSG_HDR_SIZE, 0, length);
  }
  cons_msg_send(message, CLMSG_CHANNEL, type, CONS_MCAST_ADDR, 0, 0);
}

void clmsg_recv(void *msg)
{
  const hook_call call(clmsg.gate);
  if (!call.entered()) {
    return;
  }
  const received_message message(msg);
  if (!message.accepted()) {
    return;
  }
  const auto payload = message.payload();
  if (payload.size() < CLMSG_HDR_SIZE) {
    return;
  }
  const uint32_t type = get_le32(payload.data());
  const uint32_t length = get_le32(payload.data() + 4);
  if (length > payload.size() - CLMSG_HDR_SIZE) {
    return;
  }
  cons_lock lock(clmsg.clmsg_lock);
  if (type == 0 && clmsg.hook != nullptr) {
    const host_hook_call hook;
    clmsg.hook(payload.data() + CLMSG_HDR_SIZE, length, 0);
  }
}
