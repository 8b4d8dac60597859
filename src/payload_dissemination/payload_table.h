/// Every payload that this node holds, by sender and message id. The table holds one reference of each entry, every
/// user another; a payload is never copied. Any thread; locks: a sender's row, then an entry.
#pragma once

#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

struct payload_entry {
  explicit payload_entry(payload_buf *owned) : payload(owned) {}

  cons_mutex lock{lock_rank::payload_entry};
  uint32_t references CONS_GUARDED_BY(lock) = 1;
  payload_buf *const payload;  // owned
};

/// Takes the payload over (it is released without memory); null without memory or payload.
payload_entry *payload_entry_new(payload_buf *payload);
void payload_entry_release(payload_entry *entry);

/// Creates the rows' tables; one that cannot be created stays absent: nothing is found or stored for its sender.
void payload_table_create();
void payload_table_delete();
void payload_table_clear();

/// Stores the entry and takes the creator's reference over, in every case: an entry that is not stored (layer stopped,
/// id taken, no row for the sender, no memory) is released. Returns whether it is stored.
bool paxos_data_hash_entry(payload_entry *entry, uint32_t id, uint8_t sender);

int paxos_data_has_entry(uint32_t id, uint8_t sender);

/// The entry with one more reference, or null.
payload_entry *paxos_data_get_entry(uint32_t id, uint8_t sender);

/// Takes the entry out of the table; whoever still uses it keeps it alive.
void paxos_data_unhash_entry(uint32_t id, uint8_t sender);

/// The same for every entry of `batch` that `kept` does not name.
void paxos_data_unhash_batch(const id_batch &batch, const id_batch &kept);
