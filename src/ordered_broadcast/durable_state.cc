#include "ordered_broadcast/durable_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "service/isolation.h"
#include "ordered_broadcast/stored_record.h"
#include "round_based_registers/register_table.h"
#include "service/service_state.h"
#include "vx_host.h"

namespace
{

constexpr const char *MSG_ID_FILE = "/flashdisk/cons/msg_id";
constexpr const char *DECIDE_FILE = "/flashdisk/cons/paxos_decide";
constexpr const char *DELIVER_FILE = "/flashdisk/cons/paxos_deliver";
constexpr uint32_t MSG_ID_SIZE = 4;
constexpr uint32_t DECIDE_SIZE = 4 + ID_BATCH_SIZE;

struct msg_id_state {
  cons_mutex lock{lock_rank::leaf};
  uint32_t counter CONS_GUARDED_BY(lock) = 0;  // last one handed out; 0 = file not read yet
  uint32_t floor CONS_GUARDED_BY(lock) = 0;    // highest of ours in any log seen
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

enum class take_result { taken, exhausted, failed };

take_result take_next(bool reset, std::atomic<uint32_t> &taken)
{
  cons_lock lock(msg_ids.lock);
  if (reset) {
    msg_ids.counter = 0;
    msg_ids.floor = 0;
  } else if (msg_ids.counter == 0 && !load_counter()) {
    return take_result::failed;
  }
  const uint32_t last = std::max(msg_ids.counter, msg_ids.floor);
  if (last == UINT32_MAX) {
    vx_log("%s(): CRITICAL - no message identifier is left\n", "msg_id_next");
    return take_result::exhausted;
  }
  msg_ids.counter = last + 1;
  uint8_t record[MSG_ID_SIZE];
  put_le32(record, msg_ids.counter);
  if (store_write(MSG_ID_FILE, record, sizeof record) != 0) {
    return take_result::failed;
  }
  taken = msg_ids.counter;
  return take_result::taken;
}

// A decision once durable is never replaced by an older one; number 0 is a reset.
void check_number_grows() CONS_REQUIRES(paxos.propose_lock)
{
#ifdef CONS_CHECK_LOCKS
  if (paxos.batch_id != 0 && paxos.batch_id < paxos.durable_batch_id) {
    std::abort();
  }
#endif
}

}  // namespace

uint32_t msg_id_next(bool reset, std::atomic<uint32_t> *taken)
{
  std::atomic<uint32_t> own{0};
  std::atomic<uint32_t> &id = taken != nullptr ? *taken : own;
  const take_result result = take_next(reset, id);
  if (result == take_result::failed) {
    paxos_isolate();
  }
  return result == take_result::taken ? id.load() : 0;
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
  cons_lock lock(msg_ids.lock);
  msg_ids.floor = std::max(msg_ids.floor, highest);
}

int paxos_decide_load()
{
  uint8_t record[DECIDE_SIZE];
  if (store_read(DECIDE_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return -1;
  }
  id_batch batch;
  std::memcpy(batch.bytes, record + 4, ID_BATCH_SIZE);
  if (!id_batch_valid(batch)) {
    vx_log("%s(): CRITICAL - %s holds no valid log\n", "paxos_decide_load", DECIDE_FILE);
    paxos_isolate();
    return -1;
  }
  cons_lock lock(paxos.propose_lock);
  paxos.batch_id = get_le32(record);
  paxos.decided_batch = batch;
  paxos.durable_batch_id = paxos.batch_id;
  rb_reg_set_floor(paxos.batch_id);
  msg_id_raise_floor(batch);
  return 0;
}

int paxos_decide_save()
{
  check_number_grows();
  uint8_t record[DECIDE_SIZE];
  put_le32(record, paxos.batch_id);
  std::memcpy(record + 4, paxos.decided_batch.bytes, ID_BATCH_SIZE);
  if (store_write(DECIDE_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return -1;
  }
  paxos.durable_batch_id = paxos.batch_id;
  return 0;
}

int paxos_deliver_load()
{
  uint8_t record[ID_ENTRY_SIZE];
  if (store_read(DELIVER_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return -1;
  }
  cons_lock lock(paxos.deliver_lock);
  paxos.last_delivered = id_entry_get(record);
  return 0;
}

int paxos_deliver_save()
{
  uint8_t record[ID_ENTRY_SIZE];
  id_entry_put(record, paxos.last_delivered);
  if (store_write(DELIVER_FILE, record, sizeof record) != 0) {
    paxos_isolate();
    return -1;
  }
  return 0;
}
