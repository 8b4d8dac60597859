/// References to messages and the ordered log made of them. The byte layout is the same in memory, on the wire and on
/// disk. Changing it breaks every stored file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "common/le_bytes.h"

/// Largest number of nodes in a cluster. Node ids begin with 1.
inline constexpr uint32_t NODES_MAX = 16;

/// Reference to one message.
///   offset  width  field
///   0       1      sender   node id, 1..16; 0 = empty entry
///   1       4      msg_id   little-endian, unaligned; 0 = empty entry
inline constexpr size_t ID_ENTRY_SIZE = 1 + 4;

struct id_entry {
  uint8_t sender = 0;
  uint32_t msg_id = 0;
  bool operator==(const id_entry &) const = default;
};

inline id_entry id_entry_get(const uint8_t *from)
{
  return {.sender = from[0], .msg_id = get_le32(from + 1)};
}

inline void id_entry_put(uint8_t *to, id_entry entry)
{
  to[0] = entry.sender;
  put_le32(to + 1, entry.msg_id);
}

/// Whether the entry could name a message: sender 1 to 16, msg_id not 0.
inline bool id_entry_valid(id_entry entry)
{
  return entry.sender >= 1 && entry.sender <= NODES_MAX && entry.msg_id != 0;
}

/// The ordered log since the last snapshot, which is its first entry.
///   offset   width  field
///   0        4      count    entries in use, 0..250, little-endian
///   4 + 5i   5      entry i  in decided order; slots from count on mean nothing
inline constexpr uint32_t ID_BATCH_MAX = 250;
inline constexpr size_t ID_BATCH_SIZE = 4 + ID_BATCH_MAX * ID_ENTRY_SIZE;
static_assert(ID_BATCH_SIZE == 1254);

struct id_batch {
  uint8_t bytes[ID_BATCH_SIZE] = {};
};

inline uint32_t id_batch_count(const id_batch &batch)
{
  return get_le32(batch.bytes);
}

/// Entry i. The caller guarantees that i is below the count, and the count at most ID_BATCH_MAX.
inline id_entry id_batch_entry(const id_batch &batch, uint32_t i)
{
  return id_entry_get(batch.bytes + 4 + i * ID_ENTRY_SIZE);
}

/// The first entry: the snapshot that begins the log. Zero for an empty log.
inline id_entry id_batch_first(const id_batch &batch)
{
  return id_batch_count(batch) != 0 ? id_batch_entry(batch, 0) : id_entry{};
}

/// Checks bytes from a file or a message: the count is at most 250 and every entry in use is valid.
bool id_batch_valid(const id_batch &batch);

/// Appends an entry. Does nothing, and reports nothing, if the batch is full or null.
void id_batch_add(id_batch *batch, uint32_t msg_id, uint8_t sender);

/// A log of one entry.
id_batch id_batch_of(id_entry entry);

/// Returns the index of the first entry with this msg_id and sender, or -1 (also for a null batch).
int id_batch_find(const id_batch *batch, uint32_t msg_id, uint8_t sender);

/// Calls `callback(msg_id, sender)` for entry `index`, if it exists.
template <class function>
void id_batch_call_at(const id_batch *batch, uint32_t index, function callback)
{
  if (batch != nullptr && index < id_batch_count(*batch)) {
    const id_entry entry = id_batch_entry(*batch, index);
    callback(entry.msg_id, entry.sender);
  }
}

/// Calls `callback(msg_id, sender)` for every entry in order. The count is read again after each call, so that a
/// callback that appends to the batch extends the walk.
template <class function>
void id_batch_foreach(const id_batch *batch, function callback)
{
  for (uint32_t i = 0; batch != nullptr && i < id_batch_count(*batch); ++i) {
    id_batch_call_at(batch, i, callback);
  }
}
