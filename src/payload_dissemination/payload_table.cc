#include "payload_dissemination/payload_table.h"

#include <cstdlib>
#include <new>

#include "payload_dissemination/data_stopped.h"
#include "payload_dissemination/payload_upkeep.h"
#include "payload_dissemination/state_marks.h"
#include "vx_host.h"

namespace
{

constexpr uint32_t ROW_BUCKETS = 100;

struct payload_row {
  cons_mutex lock{lock_rank::payload_row};
  void *table CONS_GUARDED_BY(lock) = nullptr;
};
constinit payload_row rows[1 + NODES_MAX];  // by sender; row 0, of those that are no node, has no table

payload_row &row_of(uint8_t sender)
{
  return rows[sender <= NODES_MAX ? sender : 0];
}

void release_from_table(void *value)
{
  payload_entry_release(static_cast<payload_entry *>(value));
}

payload_entry *find(payload_row &row, uint32_t id) CONS_REQUIRES(row.lock)
{
  return row.table != nullptr ? static_cast<payload_entry *>(vx_hash_get_entry_i(row.table, id)) : nullptr;
}

bool is_damaged(payload_entry &entry)
{
  cons_lock lock(entry.lock);
  return entry.file == payload_file_state::damaged;
}

uint32_t number_of_state(const payload_buf *payload)
{
  state_marks marks;
  return state_marks_get(payload, marks) ? marks.number : 0;
}

// Reads the payload from the file, unless it is in memory. Returns false if it cannot be read.
bool read_file(payload_entry &entry, id_entry name) CONS_REQUIRES(entry.lock)
{
  if (entry.payload != nullptr || entry.file == payload_file_state::damaged) {
    return entry.payload != nullptr;
  }
  const payload_load result = payload_store_load(name, entry.payload);
  if (result == payload_load::damaged || result == payload_load::absent) {
    entry.file = payload_file_state::damaged;
    payload_upkeep.needs_repair = true;
  }
  return result == payload_load::loaded;
}

bool store(payload_entry *entry, uint32_t id, uint8_t sender)
{
  payload_row &row = row_of(sender);
  cons_lock lock(row.lock);
  if (row.table == nullptr || paxos_data_stopped) {
    return false;
  }
  payload_entry *present = find(row, id);
  if (present != nullptr && is_damaged(*present)) {
    vx_hash_delete_entry_i(row.table, id);
  } else if (present != nullptr) {
    vx_log("%s(): Message %u of node %u already hashed. This should never happen!\n", "paxos_data_hash_entry", id,
           static_cast<unsigned>(sender));
    return false;
  }
  entry->id = id;
  return vx_hash_set_entry_i(row.table, id, entry, release_from_table) == 0;
}

// Calls `is_to_go` with each entry, with the row locked, and takes out those for which it returns true.
template <class predicate>
void visit_row(payload_row &row, predicate is_to_go)
{
  cons_lock lock(row.lock);
  if (row.table == nullptr) {
    return;
  }
  void *cursor = nullptr;
  for (void *value = vx_hash_get_first_entry_i(row.table, &cursor); value != nullptr;
       value = vx_hash_get_next_entry_i(row.table, &cursor)) {
    auto *entry = static_cast<payload_entry *>(value);
    if (is_to_go(*entry)) {
      vx_hash_delete_entry_i(row.table, entry->id);
    }
  }
}

}  // namespace

payload_entry::payload_entry(payload_buf *owned)
    : payload(owned), is_state(payload_full_state(owned) != 0), state_number(number_of_state(owned))
{
}

payload_entry::payload_entry(const payload_file &from)
    : file(from.is_sound ? payload_file_state::saved : payload_file_state::damaged), payload(nullptr),
      id(from.entry.msg_id), is_state(from.is_state), state_number(from.state_number)
{
}

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
  for (uint8_t sender = 1; sender <= NODES_MAX; ++sender) {
    payload_row &row = rows[sender];
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

bool payload_table_add_file(const payload_file &file)
{
  payload_row &row = row_of(file.entry.sender);
  cons_lock lock(row.lock);
  if (row.table == nullptr) {
    return false;
  }
  if (find(row, file.entry.msg_id) != nullptr) {
    return true;
  }
  auto *entry = new (std::nothrow) payload_entry(file);
  if (entry == nullptr) {
    return false;
  }
  if (vx_hash_set_entry_i(row.table, file.entry.msg_id, entry, release_from_table) != 0) {
    payload_entry_release(entry);
    return false;
  }
  return true;
}

int paxos_data_has_entry(uint32_t id, uint8_t sender)
{
  payload_entry *entry = paxos_data_get_entry(id, sender);
  payload_entry_release(entry);
  return entry != nullptr ? 1 : 0;
}

bool payload_table_is_damaged(id_entry entry)
{
  payload_row &row = row_of(entry.sender);
  cons_lock lock(row.lock);
  payload_entry *present = find(row, entry.msg_id);
  return present != nullptr && is_damaged(*present);
}

uint32_t payload_table_find_state(uint8_t sender, uint32_t number)
{
  uint32_t msg_id = 0;
  visit_row(row_of(sender), [&](const payload_entry &entry) {
    if (entry.is_state && entry.state_number == number) {
      msg_id = entry.id;
    }
    return false;
  });
  return msg_id;
}

bool payload_table_knows(id_entry entry)
{
  payload_row &row = row_of(entry.sender);
  cons_lock lock(row.lock);
  return find(row, entry.msg_id) != nullptr;
}

payload_entry *paxos_data_get_entry(uint32_t id, uint8_t sender)
{
  payload_row &row = row_of(sender);
  payload_entry *entry = nullptr;
  {
    cons_lock lock(row.lock);
    entry = find(row, id);
    if (entry == nullptr) {
      return nullptr;
    }
    cons_lock entry_lock(entry->lock);
    ++entry->references;
  }
  {
    cons_lock entry_lock(entry->lock);
    if (read_file(*entry, {.sender = sender, .msg_id = id})) {
      return entry;
    }
  }
  payload_entry_release(entry);
  return nullptr;
}

void paxos_data_unhash_entry(uint32_t id, uint8_t sender)
{
  payload_row &row = row_of(sender);
  {
    cons_lock lock(row.lock);
    if (row.table != nullptr) {
      vx_hash_delete_entry_i(row.table, id);
    }
  }
  payload_upkeep_collect();
}

void paxos_data_unhash_batch(const id_batch &batch, uint32_t first, const id_batch &kept)
{
  for (uint32_t i = first; i < id_batch_count(batch); ++i) {
    const id_entry entry = id_batch_entry(batch, i);
    if (id_batch_find(&kept, entry.msg_id, entry.sender) < 0) {
      paxos_data_unhash_entry(entry.msg_id, entry.sender);
    }
  }
}

void payload_table_sweep(const id_batch &kept, const std::array<uint32_t, NODES_MAX> &done_ids, uint32_t number)
{
  for (uint8_t sender = 1; sender <= NODES_MAX; ++sender) {
    visit_row(rows[sender], [&](const payload_entry &entry) {
      const bool is_superseded =
          entry.is_state ? entry.state_number != 0 && entry.state_number <= number : entry.id <= done_ids[sender - 1];
      return is_superseded && id_batch_find(&kept, entry.id, sender) < 0;
    });
  }
  payload_upkeep_collect();
}

void payload_table_forget_files()
{
  for (uint8_t sender = 1; sender <= NODES_MAX; ++sender) {
    visit_row(rows[sender], [&](payload_entry &entry) {
      cons_lock lock(entry.lock);
      const bool is_here = read_file(entry, {.sender = sender, .msg_id = entry.id});
      entry.file = payload_file_state::none;
      return !is_here;
    });
  }
}
