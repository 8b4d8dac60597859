#include "payload_dissemination/payload_files.h"

#include <algorithm>

#include "common/monotonic_clock.h"
#include "common/save_times.h"
#include "payload_dissemination/data_stopped.h"
#include "payload_dissemination/payload_store.h"
#include "payload_dissemination/payload_table.h"
#include "payload_dissemination/payload_upkeep.h"
#include "vx_host.h"

namespace
{

constexpr int64_t RETRY_US = 1000000;
constexpr uint64_t RESERVE = 1000000;  // for the three records and the registers

// The state that ends a log must still find room where ordinary payloads do not.
uint64_t reserve_for(const payload_entry &entry)
{
  return entry.is_state ? RESERVE : payload_files_reserve();
}

enum class save_step { done, go, refused };

save_step begin_save(payload_entry &entry)
{
  cons_lock lock(entry.lock);
  if (entry.file == payload_file_state::saved) {
    return save_step::done;
  }
  const int64_t now_us = monotonic_us();
  if (entry.file == payload_file_state::saving || (entry.tried_us != 0 && now_us - entry.tried_us < RETRY_US)) {
    return save_step::refused;
  }
  entry.file = payload_file_state::saving;
  entry.tried_us = now_us;
  return save_step::go;
}

bool save(const payload_entry &entry, id_entry name)
{
  const save_timer timer(VX_CONS_SAVES_PAYLOAD);
  if (payload_store_write(name, entry.payload, entry.state_number, reserve_for(entry)) != 0) {
    return false;
  }
  cons_lock lock(payload_files.name_lock);
  if (!payload_table_knows(name)) {
    payload_store_discard(name);  // it left the table meanwhile
    return false;
  }
  return payload_store_commit(name) == 0;
}

bool add_file(const payload_file &file)
{
  if (file.is_foreign) {
    vx_log("CONS: PAXOS DATA: payload (id=%u/%hhu) on disk is of another cluster - removed\n", file.entry.msg_id,
           file.entry.sender);
    payload_store_remove(file);
    return true;
  }
  if (file.is_state) {
    payload_files.last_state_size = std::max(payload_files.last_state_size.load(), file.length);
  }
  if (!payload_table_add_file(file)) {
    vx_log("%s(): no memory for the payload files\n", "payload_files_load");
    return false;
  }
  return true;
}

bool remove_if_unnamed(const payload_file &file, bool is_logged)
{
  cons_lock lock(payload_files.name_lock);
  if (!payload_table_knows(file.entry)) {
    if (is_logged && !file.is_temporary) {
      vx_log("CONS: PAXOS DATA: payload (id=%u/%hhu) on disk is superseded - removed\n", file.entry.msg_id,
             file.entry.sender);
    }
    payload_store_remove(file);
  }
  return !paxos_data_stopped;
}

}  // namespace

uint64_t payload_files_reserve()
{
  return payload_upkeep.is_on ? RESERVE + 2 * uint64_t{payload_files.last_state_size} : 0;
}

int payload_files_load(bool is_on, const std::function<void()> &progress)
{
  payload_upkeep.is_on = is_on;
  if (!is_on) {
    payload_table_forget_files();
    payload_store_remove_all();
    return 0;
  }
  const auto add = [&](const payload_file &file) {
    progress();
    return add_file(file);
  };
  return payload_store_open() == 0 && payload_store_walk(true, add) == 0 ? 0 : -1;
}

bool payload_files_start()
{
  return !payload_upkeep.is_on || library_thread_create(payload_files.thread, "paxos_data_start");
}

void payload_files_stop()
{
  payload_upkeep.cond.wake_all(payload_upkeep.lock);
  library_thread_join(payload_files.thread);
}

bool payload_files_make_durable(id_entry name)
{
  if (!payload_upkeep.is_on) {
    return true;
  }
  payload_entry *entry = paxos_data_get_entry(name.msg_id, name.sender);
  if (entry == nullptr) {
    return false;
  }
  const save_step step = begin_save(*entry);
  bool is_saved = step == save_step::done;
  if (step == save_step::go) {
    is_saved = save(*entry, name);
    cons_lock lock(entry->lock);
    entry->file = is_saved ? payload_file_state::saved : payload_file_state::none;
    if (is_saved && entry->is_state) {
      payload_files.last_state_size = payload_size(entry->payload);
    }
  }
  payload_entry_release(entry);
  if (!payload_table_knows(name)) {
    payload_upkeep_collect();  // the payload left the table meanwhile
  }
  return is_saved;
}

void *payload_files_thread(void *)
{
  bool is_first = true;  // files left by an earlier run are reported
  while (!paxos_data_stopped) {
    {
      cons_lock lock(payload_upkeep.lock);
      while (!payload_upkeep.has_garbage && !paxos_data_stopped) {
        payload_upkeep.cond.wait(payload_upkeep.lock);
      }
      payload_upkeep.has_garbage = false;
    }
    if (!paxos_data_stopped) {
      payload_store_walk(false, [=](const payload_file &file) { return remove_if_unnamed(file, is_first); });
      is_first = false;
    }
  }
  return nullptr;
}
