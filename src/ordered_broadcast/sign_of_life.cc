#include "ordered_broadcast/sign_of_life.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "common/le_bytes.h"
#include "vx_host.h"

namespace
{

constexpr key_t KEEPALIVED_MSGQ_KEY = 0x64387148;

struct liveness_message {
  long mtype;
  uint8_t mtext[8];
};

}  // namespace

sign_of_life::sign_of_life() : queue_(msgget(KEEPALIVED_MSGQ_KEY, IPC_CREAT | 0600))
{
  if (queue_ == -1) {
    vx_log_err("Cannot get/create msg queue for watching kesh process by keepalived");
  }
}

void sign_of_life::send() const
{
  liveness_message message = {.mtype = 1, .mtext = {}};
  put_le32(message.mtext, static_cast<uint32_t>(time(nullptr)));
  put_le32(message.mtext + 4, vx_firmware_dova_build_nr);
  if (msgsnd(queue_, &message, sizeof message.mtext, IPC_NOWAIT) == 0) {
    return;
  }
  if (errno == EAGAIN) {
    vx_log("CONS: PAXOS: Cannot send message to keepalived: %s\n", strerror(errno));
  } else {
    vx_log_err("Cannot send message to keepalived");
  }
}
