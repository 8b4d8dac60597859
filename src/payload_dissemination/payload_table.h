/// Every payload that this node holds, by sender and message id. The table holds one reference to each entry, and every
/// user holds one more. A payload is never copied. With durable payloads an entry may stand for a file, which is read
/// and checked at first use. Any thread. Lock order: a sender's row, then an entry.
#pragma once

#include <array>
#include <cstdint>

#include "common/cons_mutex.h"
#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"
#include "payload_dissemination/payload_store.h"

enum class payload_file_state : uint8_t {
  none,     ///< in memory only
  saving,   ///< a thread writes the file
  saved,    ///< on disk; bytes read from the file are checked before use
  damaged,  ///< was saved by this node, but cannot be read any more
};

struct payload_entry {
  explicit payload_entry(const payload_file &file);
  explicit payload_entry(payload_buf *owned);

  cons_mutex lock{lock_rank::payload_entry};
  uint32_t references CONS_GUARDED_BY(lock) = 1;
  payload_file_state file CONS_GUARDED_BY(lock) = payload_file_state::none;
  int64_t tried_us CONS_GUARDED_BY(lock) = 0;  // last attempt to save it, monotonic; 0 = none
  /// Owned. Null while only the file holds the payload. In an entry from paxos_data_get_entry it is set and stays so.
  payload_buf *payload;
  uint32_t id = 0;        // set when it is stored
  bool is_state;          // a snapshot, not an ordinary payload
  uint32_t state_number;  // of a snapshot with marks: number of the decision that begins its log; else 0
};

/// Takes the payload over. Returns null if the payload is null or memory runs out; the payload is then released.
payload_entry *payload_entry_new(payload_buf *payload);
void payload_entry_release(payload_entry *entry);

/// Creates the rows' tables. If one cannot be created, nothing is found or stored for its sender.
void payload_table_create();
void payload_table_delete();
void payload_table_clear();

/// Stores the entry and takes the creator's reference over. An entry that cannot be stored (layer stopped, id taken, no
/// row for the sender, no memory) is released. A present entry whose file is damaged is replaced. Returns whether the
/// entry is stored.
bool paxos_data_hash_entry(payload_entry *entry, uint32_t id, uint8_t sender);

/// Adds an entry for a file, before the layer starts. An entry that is already in the table stays. Returns false if
/// memory runs out.
bool payload_table_add_file(const payload_file &file);

/// Before the files go: reads what only they have. What cannot be read leaves the table. Before the layer starts.
void payload_table_forget_files();

/// Whether the payload is here, its bytes checked.
int paxos_data_has_entry(uint32_t id, uint8_t sender);

/// Whether the entry's file is known to be damaged.
bool payload_table_is_damaged(id_entry entry);

/// Whether the table has the entry, even if its file is damaged.
bool payload_table_knows(id_entry entry);

/// The identifier of a state of that sender for that number, or 0.
uint32_t payload_table_find_state(uint8_t sender, uint32_t number);

/// The entry, its payload read, with one more reference, or null.
payload_entry *paxos_data_get_entry(uint32_t id, uint8_t sender);

/// Takes the entry out of the table. Its users keep it alive.
void paxos_data_unhash_entry(uint32_t id, uint8_t sender);

/// The same for every entry of `batch` from index `first` on that `kept` does not name.
void paxos_data_unhash_batch(const id_batch &batch, uint32_t first, const id_batch &kept);

/// Takes out the superseded payloads, which no node will ask for any more. Of those that `kept` does not name, these
/// are the ordinary ones at or below their sender's identifier in `done_ids`, and the snapshots with marks whose number
/// is at or below `number`.
void payload_table_sweep(const id_batch &kept, const std::array<uint32_t, NODES_MAX> &done_ids, uint32_t number);
