#include "ordered_broadcast/message_ids.h"

#include <algorithm>

#include "common/cons_mutex.h"
#include "ordered_broadcast/stored_record.h"
#include "service/isolation.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr const char *MSG_ID_FILE = "/flashdisk/cons/msg_id";
constexpr uint32_t MSG_ID_SIZE = 4;

struct msg_id_state {
  cons_mutex lock{lock_rank::leaf};            // held while the file is written
  uint32_t counter CONS_GUARDED_BY(lock) = 0;  // last one handed out; 0 = file not read yet
  std::atomic<uint32_t> floor{0};              // this node's highest in any log seen
};
constinit msg_id_state msg_ids;

bool load_counter() CONS_REQUIRES(msg_ids.lock)
{
  uint8_t record[MSG_ID_SIZE];
  if (store_read(MSG_ID_FILE, record, sizeof record) != 0) {
    return false;
  }
  msg_ids.counter = get_le32(record);
  return true;
}

bool take_next(bool reset, std::atomic<uint32_t> &taken)
{
  cons_lock lock(msg_ids.lock);
  if (reset) {
    msg_ids.counter = 0;
    msg_ids.floor = 0;
  } else if (msg_ids.counter == 0 && !load_counter()) {
    return false;
  }
  const uint32_t last = std::max(msg_ids.counter, msg_ids.floor.load());
  if (last == UINT32_MAX) {
    vx_log("%s(): CRITICAL - no message identifier is left\n", "msg_id_next");
    return false;
  }
  msg_ids.counter = last + 1;
  uint8_t record[MSG_ID_SIZE];
  put_le32(record, msg_ids.counter);
  if (store_write(MSG_ID_FILE, record, sizeof record) != 0) {
    return false;
  }
  taken = msg_ids.counter;
  return true;
}

}  // namespace

uint32_t msg_id_next(bool reset, std::atomic<uint32_t> *taken)
{
  std::atomic<uint32_t> own{0};
  std::atomic<uint32_t> &id = taken != nullptr ? *taken : own;
  if (!take_next(reset, id)) {
    paxos_isolate();
    return 0;
  }
  return id;
}

void msg_id_raise_floor(const id_batch &batch)
{
  uint32_t highest = 0;
  for (uint32_t i = 0; i < id_batch_count(batch); ++i) {
    const id_entry entry = id_batch_entry(batch, i);
    if (entry.sender == cons_service.node_id) {
      highest = std::max(highest, entry.msg_id);
    }
  }
  uint32_t floor = msg_ids.floor;
  while (floor < highest && !msg_ids.floor.compare_exchange_weak(floor, highest)) {
  }
}
