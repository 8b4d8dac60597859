/// Files of the payloads, with durable payloads. One per payload, /flashdisk/cons/payloads/<sender>.<id>:
///
///   offset  width   field (little-endian)
///   0       8       "VXPAYLD1"
///   8       8       cluster id
///   16      4       id
///   20      1       sender
///   21      1       1 = a state, 0 = ordinary payload
///   22      2       0
///   24      4       length of the payload
///   28      4       of a state: the number of the decision that begins its log
///   32      32      SHA-256 over bytes 0 to 31 and the payload
///   64      length  the payload, as it travels
///
/// Written whole: to <sender>.<id>.tmp, its space reserved first, flushed, renamed, sync(). Failures are logged here.
/// No lock; nobody saves and removes one payload at the same time.
#pragma once

#include <cstdint>

#include "common/id_batch.h"
#include "payload_dissemination/payload_buf.h"

inline constexpr uint32_t PAYLOAD_FILE_HEADER_SIZE = 64;

/// Creates the directory if it is not there. Returns 0 or -1.
int payload_store_open();

/// Writes the temporary file. Fails where less than `reserve` bytes would stay free on the file system, so that
/// payloads never take the room of the records. Returns 0; -1 with no temporary file left.
/// `state_number` is that of a state with marks, else 0.
int payload_store_write(id_entry entry, const payload_buf *payload, uint32_t state_number, uint64_t reserve);

/// The temporary file becomes the payload's, durably. Returns 0 or -1.
int payload_store_commit(id_entry entry);

enum class payload_load { loaded, absent, damaged, failed };

/// Reads and checks a payload; `payload` is the caller's on `loaded`. `failed`: it may succeed later (no memory).
payload_load payload_store_load(id_entry entry, payload_buf *&payload);

struct payload_file {
  id_entry entry;
  bool is_state = false;  // as the header says
  uint32_t state_number = 0;
  uint32_t length = 0;      // of the payload
  bool is_sound = false;    // the header fits the name, the cluster and the file's size; the bytes are not checked
  bool is_foreign = false;  // of another cluster
};

/// Calls back for each payload file, by name. With `is_start` the headers are read, and what is left of a save or not
/// named like a payload is removed with a line. Returns 0; -1 if the directory cannot be read or a callback returned
/// false.
using payload_file_cb = bool (*)(const payload_file &file, void *context);
int payload_store_walk(bool is_start, payload_file_cb callback, void *context);

void payload_store_remove(id_entry entry);

/// Removes every file of the directory and the directory. Returns 0, also where there is none; -1 if some stay.
int payload_store_remove_all();
