#include "payload_dissemination/payload_table.h"

#include <cstdlib>
#include <new>

#include "payload_dissemination/data_state.h"
#include "vx_host.h"

namespace
{

constexpr uint32_t ROW_BUCKETS = 100;

struct payload_row {
  cons_mutex lock{lock_rank::payload_row};
  void *table CONS_GUARDED_BY(lock) = nullptr;
};
constinit payload_row rows[NODES_MAX];

payload_row *row_of(uint8_t sender)
{
  return sender >= 1 && sender <= NODES_MAX ? &rows[sender - 1] : nullptr;
}

void release_from_table(void *value)
{
  payload_entry_release(static_cast<payload_entry *>(value));
}

payload_entry *find(payload_row &row, uint32_t id) CONS_REQUIRES(row.lock)
{
  return row.table != nullptr ? static_cast<payload_entry *>(vx_hash_get_entry_i(row.table, id)) : nullptr;
}

bool store(payload_entry *entry, uint32_t id, uint8_t sender)
{
  payload_row *row = row_of(sender);
  if (row == nullptr) {
    return false;
  }
  cons_lock lock(row->lock);
  if (row->table == nullptr || paxos_data.stopped) {
    return false;
  }
  if (find(*row, id) != nullptr) {
    vx_log("%s(): Message %u of node %u already hashed. This should never happen!\n", "paxos_data_hash_entry", id,
           static_cast<unsigned>(sender));
    return false;
  }
  return vx_hash_set_entry_i(row->table, id, entry, release_from_table) == 0;
}

void unhash_unless_kept(uint32_t id, uint8_t sender, void *kept)
{
  if (id_batch_find(*static_cast<const id_batch **>(kept), id, sender) < 0) {
    paxos_data_unhash_entry(id, sender);
  }
}

}  // namespace

payload_entry *payload_entry_new(payload_buf *payload)
{
  if (payload == nullptr) {
    return nullptr;
  }
  auto *entry = new (std::nothrow) payload_entry(payload);
  if (entry == nullptr) {
    std::free(payload);
  }
  return entry;
}

void payload_entry_release(payload_entry *entry)
{
  if (entry == nullptr) {
    return;
  }
  bool is_last = false;
  {
    cons_lock lock(entry->lock);
    is_last = --entry->references == 0;
  }
  if (is_last) {
    std::free(entry->payload);
    delete entry;
  }
}

void payload_table_create()
{
  for (payload_row &row : rows) {
    cons_lock lock(row.lock);
    if (row.table == nullptr) {
      row.table = vx_hash_create_i(ROW_BUCKETS);
    }
  }
}

void payload_table_delete()
{
  for (payload_row &row : rows) {
    cons_lock lock(row.lock);
    if (row.table != nullptr) {
      vx_hash_delete_i(row.table);
      row.table = nullptr;
    }
  }
}

void payload_table_clear()
{
  for (payload_row &row : rows) {
    cons_lock lock(row.lock);
    if (row.table != nullptr) {
      vx_hash_clear_i(row.table);
    }
  }
}

bool paxos_data_hash_entry(payload_entry *entry, uint32_t id, uint8_t sender)
{
  if (entry == nullptr || store(entry, id, sender)) {
    return entry != nullptr;
  }
  payload_entry_release(entry);
  return false;
}

int paxos_data_has_entry(uint32_t id, uint8_t sender)
{
  payload_row *row = row_of(sender);
  if (row == nullptr) {
    return 0;
  }
  cons_lock lock(row->lock);
  return find(*row, id) != nullptr ? 1 : 0;
}

payload_entry *paxos_data_get_entry(uint32_t id, uint8_t sender)
{
  payload_row *row = row_of(sender);
  if (row == nullptr) {
    return nullptr;
  }
  cons_lock lock(row->lock);
  payload_entry *entry = find(*row, id);
  if (entry != nullptr) {
    cons_lock entry_lock(entry->lock);
    ++entry->references;
  }
  return entry;
}

void paxos_data_unhash_entry(uint32_t id, uint8_t sender)
{
  payload_row *row = row_of(sender);
  if (row == nullptr) {
    return;
  }
  cons_lock lock(row->lock);
  if (row->table != nullptr) {
    vx_hash_delete_entry_i(row->table, id);
  }
}

void paxos_data_unhash_batch(const id_batch &batch, const id_batch &kept)
{
  const id_batch *context = &kept;
  id_batch_foreach(&batch, unhash_unless_kept, &context);
}
